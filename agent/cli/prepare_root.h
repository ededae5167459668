// The root of an Apache that `run` and `prepare` start from.
#pragma once

#include <string>

#include "apache/measured_root.h"

namespace tolvane::agent {

// Calls prepareRoot, shows a progress line meanwhile, and writes the notes to
// standard error.
MeasuredRoot prepareRootWithNotes(const ServerCommand& command, const std::string& wanted,
                                  bool always);

}  // namespace tolvane::agent
