// The names of the sites and categories at each index of a segment. A segment
// counts by index, the totals are kept by name.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct SiteEntry {
    std::string name;  // empty: the index was never configured
    std::array<std::string, kMaxCategories> labels;

    bool operator==(const SiteEntry&) const = default;
};
using NameTable = std::array<SiteEntry, kMaxSites>;

// The label, or the category's number if another agent wrote no label.
std::string labelOf(const CategoryConfig& category, int index);

// Copies the names of a configuration: all names, or only those of indices without
// a name. An index that is empty in the configuration keeps its name, because
// processes with the previous configuration still publish counts for it.
enum class NameUpdate { kAll, kNewOnly };
void updateNames(NameTable& names, const ConfigInfo& config, NameUpdate update);

// The wanted configuration, arranged so that every site and category that has an
// index keeps it. The index of a removed entry is reused only if no other index is
// free; until then the entry has no name and no pattern, and matches nothing.
std::unique_ptr<ConfigInfo> placeConfiguration(const ConfigInfo& wanted, const NameTable& names);

}  // namespace tolvane::agent
