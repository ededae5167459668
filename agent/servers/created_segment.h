// The segment that a process created, according to the kernel.
#pragma once

#include <sys/types.h>

#include "servers/handoff.h"

namespace tolvane::agent {

// Any user can write into a handoff file, but only its server determines its name.
// Finds the segment that the process in the name created, and sets the fields of
// `handoff` to it. False if there is no such segment.
bool leadToCreatedSegment(Handoff& handoff);

}  // namespace tolvane::agent
