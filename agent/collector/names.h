// Which site and category an index of the segment stands for. Counts come by
// index, the long totals are kept by name.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct SiteNames {
    std::string name;  // empty: nothing was configured here yet
    std::array<std::string, kMaxCategories> labels;

    bool operator==(const SiteNames&) const = default;
};
using Names = std::array<SiteNames, kMaxSites>;

// The label, or the category's place when another agent gave it none.
std::string labelOf(const CategoryConfig& category, int index);

// Takes the names of a configuration over: all of them, or only those of indices
// that have none yet. An index that the configuration leaves empty keeps its
// name: processes that still work with the one before hand on counts for it.
enum class NamesTaken { kAll, kNew };
void takeNames(Names& names, const ConfigInfo& config, NamesTaken taken);

// The wanted configuration, arranged so that every site and category that has
// an index already keeps it, and one that is removed leaves its index to nobody
// as long as there is another. Such a gap has no name and no pattern and so
// matches nothing.
std::unique_ptr<ConfigInfo> placeConfiguration(const ConfigInfo& wanted, const Names& names);

}  // namespace tolvane::agent
