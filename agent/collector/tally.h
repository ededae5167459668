// Adding what was taken to the long totals.
#pragma once

#include <ctime>

#include "collector/names.h"
#include "collector/state.h"

namespace tolvane::agent {

// Rows of sites, and of categories of a site, that are kept at most. The names in
// a segment are anybody's.
inline constexpr std::size_t kMostRows = 60;

// Adds counts by the names that stand at their indices. The histories show what
// was counted just now, not what has gathered while nobody took it.
enum class InHistory { kYes, kNo };
void addCounts(ServerTally& tally, const CountSet& counts, const Names& names, std::time_t now,
               InHistory inHistory);

// Makes rows for everything that the configuration names, in its order and
// ahead of all others, and says of each row whether it is configured now.
void markConfigured(ServerTally& tally, const ConfigInfo& config, std::time_t now);

// Drops the rows that are not configured and were not seen since `oldest`.
void forgetRows(ServerTally& tally, std::time_t oldest);

}  // namespace tolvane::agent
