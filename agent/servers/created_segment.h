// Which segment a process created, by the system's own account.
#pragma once

#include <sys/types.h>

#include "servers/handoff.h"

namespace tolvane::agent {

// Anybody may write into a handoff file, but only its server gives it its
// name: looks for the segment that the process in the name created, and has
// `handoff` lead there. False when there is none.
bool leadToCreatedSegment(Handoff& handoff);

}  // namespace tolvane::agent
