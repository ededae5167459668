// A copy of the configuration in a segment that is safe to use: every count is in
// its range, every text is terminated, and names are sanitised.
#pragma once

#include <memory>
#include <string>

#include "segment/segment.h"

namespace tolvane::agent {

struct ConfigCopy {
    std::unique_ptr<ConfigInfo> info;
    bool steady = false;    // not rewritten during the copy
    std::string complaint;  // the values out of range; empty without any
};
ConfigCopy copyConfiguration(const Segment& segment);

// Makes a configuration safe to use. Returns the values out of range.
std::string sanitiseConfiguration(ConfigInfo& config);

}  // namespace tolvane::agent
