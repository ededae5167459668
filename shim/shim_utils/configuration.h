// The process's own copy of the agent's configuration: how it is taken from
// the segment, bounded, and prepared for matching.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pattern_index.h"
#include "site_names.h"
#include "text.h"
#include "tolvane/segment_format.h"

namespace tolvane {

// A configuration and what was worked out from it when it was taken, so that
// the server's calls do not have to.
struct Configuration {
    ConfigInfo info;  // bounded: no count or length exceeds its capacity, every text ends
    SiteNames names;
    PatternIndex patterns;
};

// The configuration in force; all zero until one has been taken. It stays
// unchanged until the configuration after the next one is taken: a server
// thread uses it within a SlotWork, and whoever takes a new one first calls
// waitForSlotsAtWork.
const Configuration& configInfo();

// Whether the segment's version is greater than ours. Ours is 0 until a
// configuration has been taken: a block that is being written, with a version
// of 0 or less, is never newer.
bool newerConfigurationThere();

// The segment's `interval`, as it stands there.
std::int32_t segmentInterval();

// Copies the segment's block when its version is greater than ours. Returns
// whether it did.
bool takeConfiguration();

// The same for a process that looks at every publication: tries at most once a
// second, however often the version is raised. The first try comes at once.
bool checkLatestConfigInfo();

// Bounds `config` to the capacities of the format. Adds to `report` what was
// out of range, value and limits; it stays empty when nothing was.
void boundConfiguration(ConfigInfo& config, Text<512>& report);

// Works out everything in `config` beside `info`, which is bounded.
void prepareConfiguration(Configuration& config);

// A copy of the configuration in force, to be changed and then put into force.
ConfigInfo& editConfiguration();
void useEditedConfiguration();

}  // namespace tolvane
