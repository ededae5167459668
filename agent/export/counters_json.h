// The counters of a site or category as members of a JSON object.
#pragma once

#include <nlohmann/json.hpp>

#include "counts/sums.h"

namespace tolvane::agent {

template <typename Block>
void addCounters(nlohmann::ordered_json& json, const Sums<Block>& sums) {
    for (std::size_t i = 0; i < Sums<Block>::kCount; ++i) {
        json[countersOf<Block>()[i].name] = sums.values[i];
    }
}

}  // namespace tolvane::agent
