// What a segment has counted at one moment, and what came on between two.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "servers/server.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct TrafficCounts {
    std::uint64_t connections = 0;
    std::uint64_t requests = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    std::uint64_t errors = 0;
    std::uint64_t dropped = 0;
    std::uint64_t redirects = 0;
    std::uint64_t clientErrors = 0;
    std::uint64_t serverErrors = 0;
};

struct CategoryCounts {
    std::uint64_t requests = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t errors = 0;
    std::uint64_t dropped = 0;
    double responseTimeSum = 0;  // seconds
};

// The counts of every record together, by index of site and category.
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

// Reads the segment and leaves everything in it as it is. Throws Error.
Sample takeSample(const Server& server);

// The counts in the records. A group whose dirty flag is 0 was taken by an
// agent: what still stands there counts no more.
CountSet countsOf(const std::vector<ResultStruct>& records);

// The record with its taken groups emptied.
ResultStruct withoutTaken(const ResultStruct& record);

// How long ago the earlier of two copies of a record was made.
enum class Gap { kSeconds, kAny };

// Adds what came on in a record between two copies of it. Counters wrap at
// 2^32, and a group starts from 0 again after an agent has taken it.
void addIncrease(CountSet& sum, const ResultStruct& before, const ResultStruct& after, Gap gap);

// The same over all records of a server, between two samples.
CountSet increase(const std::vector<ResultStruct>& before, const std::vector<ResultStruct>& after);
void addIncrease(CountSet& sum, const std::vector<ResultStruct>& before,
                 const std::vector<ResultStruct>& after);

}  // namespace tolvane::agent
