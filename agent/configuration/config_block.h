// Conversion of a validated configuration to the segment's format.
#pragma once

#include <memory>

#include "configuration/config_file.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

// Fills everything except `version` and `parentPid`, which are 0. Throws Error
// for a model that was not validated.
std::unique_ptr<ConfigInfo> buildConfigBlock(const ConfigModel& model);

}  // namespace tolvane::agent
