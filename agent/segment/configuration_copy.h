// A copy of the configuration in a segment that is safe to use: every count is in
// its range, every text ends, and names contain nothing but printable text.
#pragma once

#include <memory>
#include <string>

#include "segment/segment.h"

namespace tolvane::agent {

struct ConfigCopy {
    std::unique_ptr<ConfigInfo> info;
    bool steady = false;    // it was not being rewritten
    std::string complaint;  // what was out of range; empty when nothing was
};
ConfigCopy copyConfiguration(const Segment& segment);

// Makes a configuration safe to use. Returns what was out of range.
std::string sanitiseConfiguration(ConfigInfo& config);

}  // namespace tolvane::agent
