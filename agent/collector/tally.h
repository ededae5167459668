// Adding collected counts to the totals of a server.
#pragma once

#include <ctime>

#include "collector/name_table.h"
#include "collector/state.h"

namespace tolvane::agent {

// Maximum numbers of sites of a server and categories of a site: any process can
// write names into a segment.
inline constexpr std::size_t kMostRows = 60;

// Adds counts under the names of their indices. Only counts since the previous
// collection are added to the history.
enum class InHistory { kYes, kNo };
void addCounts(ServerTally& tally, const CountSet& counts, const NameTable& names, std::time_t now,
               InHistory inHistory);

// Makes a row for each name in the configuration, in its order and before all
// other rows, and sets which rows are configured now.
void markConfigured(ServerTally& tally, const ConfigInfo& config, std::time_t now);

// Drops the rows that are not configured and were not seen since `oldest`.
void dropOldRows(ServerTally& tally, std::time_t oldest);

}  // namespace tolvane::agent
