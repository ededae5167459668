// Adding what was taken to the long totals.
#pragma once

#include <ctime>

#include "collector/names.h"
#include "collector/state.h"

namespace tolvane::agent {

// Adds counts by the names that stand at their indices, and notes them in the
// histories.
void addCounts(ServerTally& tally, const CountSet& counts, const Names& names, std::time_t now);

// Makes rows for everything that the configuration names, in its order and
// ahead of all others, and says of each row whether it is configured now.
void markConfigured(ServerTally& tally, const ConfigInfo& config);

}  // namespace tolvane::agent
