// The counts of a segment at a time, and the increase between two times.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "counts/sums.h"
#include "segment/configuration_copy.h"
#include "servers/server.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

// The counts of all records together, by index of site and category.
struct CountSet {
    TrafficCounts total;
    TrafficCounts site[kMaxSites];
    CategoryCounts category[kMaxSites][kMaxCategories];
};

struct Sample {
    std::chrono::steady_clock::time_point when;
    std::time_t measuredSince = 0;
    std::int32_t version = 0;
    ConfigCopy config;
    std::vector<ResultStruct> records;
    bool steady = true;  // every record was copied between two publications
};

// Reads the segment without changing it. Throws Error.
Sample takeSample(const Server& server);

// The sum over the records. A group whose dirty flag is 0 was collected by
// another agent, and its counters are stale: it counts as 0.
CountSet countsOf(const std::vector<ResultStruct>& records);

// Whether processes have published requests, and none for any configured site.
bool noSiteCounted(const Sample& sample);

// The record with such groups set to 0.
ResultStruct withoutStaleGroups(const ResultStruct& record);

// The time between two copies of a record.
enum class Gap { kSeconds, kAny };

// Adds the increase between two copies of a record. Counters wrap at
// 2^32, and a group starts from 0 again after another agent has collected it.
void addIncrease(CountSet& sum, const ResultStruct& before, const ResultStruct& after, Gap gap);

// The same over all records of a server, between two samples.
CountSet increase(const std::vector<ResultStruct>& before, const std::vector<ResultStruct>& after);
void addIncrease(CountSet& sum, const std::vector<ResultStruct>& before,
                 const std::vector<ResultStruct>& after);

}  // namespace tolvane::agent
