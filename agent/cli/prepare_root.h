// The root of an Apache that `run` and `prepare` start from.
#pragma once

#include <string>

#include "apache/measured_root.h"

namespace tolvane::agent {

// prepareRoot with a progress line while the server answers; its notes go to
// standard error.
MeasuredRoot prepareRootWithNotes(const ServerCommand& command, const std::string& wanted,
                                  bool always);

}  // namespace tolvane::agent
