#include "counts/sums.h"

namespace tolvane::agent {

TrafficCounts asTraffic(const CategoryCounts& counts) {
    TrafficCounts traffic;
    for (std::size_t i = 0; i < CategoryCounts::kCount; ++i) {
        traffic.setNamed(kCategoryCounters[i].name, counts.values[i]);
    }
    return traffic;
}

}  // namespace tolvane::agent
