// The process's copy of the agent's configuration: it is copied from the segment,
// bounded, and prepared for matching.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shim_utils/configuration/pattern_index.h"
#include "shim_utils/configuration/site_names.h"
#include "shim_utils/platform/text.h"
#include "tolvane/segment_format.h"

namespace tolvane {

// A configuration and the tables built from it when it was copied, so that the
// server's calls do not build them.
struct Configuration {
    ConfigInfo info;  // bounded: no count or length exceeds its capacity, every text is terminated
    SiteNames names;
    PatternIndex patterns;
};

// The configuration in force; all zero until a configuration has been copied. Its
// memory is overwritten by the copy after the next. A server thread therefore uses
// it within a SlotWork, and the publisher calls waitForSlotsAtWork before it copies.
const Configuration& configInfo();

// Whether the segment's version is greater than that of the configuration in
// force, which is 0 before the first copy. A block that is being written has a
// version of 0 or less, so it is never newer.
bool newerConfigurationExists();

// The segment's `interval`, not bounded.
std::int32_t segmentInterval();

// Copies the segment's block and puts it into force if it is newer. Returns
// whether it did.
bool copyConfiguration();

// The same for a process that calls it at every publication. Copies at most once
// per second, however often the version increases. The first call does not wait.
bool checkLatestConfigInfo();

// Bounds `config` to the capacities of the format. Adds each field that was out of
// range to `report`, with its value and limits.
void boundConfiguration(ConfigInfo& config, Text<512>& report);

// Builds the tables of `config` from its `info`, which is bounded.
void prepareConfiguration(Configuration& config);

// The first returns a copy of the configuration in force for changes. The second
// puts the changed copy into force.
ConfigInfo& editConfiguration();
void useEditedConfiguration();

}  // namespace tolvane
