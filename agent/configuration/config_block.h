// A validated configuration as the bytes of the segment.
#pragma once

#include <memory>

#include "configuration/config_file.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

// Everything but `version` and `parentPid`, which are 0. Throws
// Error for a model that did not come through the checks.
std::unique_ptr<ConfigInfo> buildConfigBlock(const ConfigModel& model);

}  // namespace tolvane::agent
