#include "counts/counts.h"

#include <algorithm>
#include <cmath>

namespace tolvane::agent {

namespace {

void add(TrafficCounts& sum, const CounterBlock& block) {
    sum.connections += block.connections;
    sum.requests += block.requests;
    sum.bytesSent += block.bytesSent;
    sum.bytesReceived += block.bytesReceived;
    sum.errors += block.errors;
    sum.dropped += block.droppedRequests;
    sum.redirects += block.redirects;
    sum.clientErrors += block.clientErrors;
    sum.serverErrors += block.serverErrors;
}

void add(CategoryCounts& sum, const CategoryCounters& counters) {
    sum.requests += counters.requests;
    sum.bytesSent += counters.bytesSent;
    sum.errors += counters.errors;
    sum.dropped += counters.droppedRequests;
    if (std::isfinite(counters.responseTimeSum)) sum.responseTimeSum += counters.responseTimeSum;
}

void add(CountSet& sum, const ResultStruct& record) {
    add(sum.total, record.total);
    for (int s = 0; s < kMaxSites; ++s) {
        add(sum.site[s], record.site[s]);
        for (int c = 0; c < kMaxCategories; ++c) add(sum.category[s][c], record.category[s][c]);
    }
}

// The record with its taken groups emptied.
ResultStruct withoutTaken(const ResultStruct& record) {
    ResultStruct kept = record;
    if (kept.totalDirty == 0) kept.total = {};
    if (kept.sitesDirty == 0) std::fill(std::begin(kept.site), std::end(kept.site), CounterBlock{});
    if (kept.categoriesDirty == 0) {
        for (auto& site : kept.category)
            std::fill(std::begin(site), std::end(site), CategoryCounters{});
    }
    return kept;
}

// Bytes wrap, but do not come in such an amount between two samples: less was
// there in truth.
bool bytesSank(std::uint32_t before, std::uint32_t after) {
    return after - before >= 1U << 31;
}

// All else is too little to wrap between two samples; when any of it sank, its
// group was cleared.
bool sank(const CounterBlock& before, const CounterBlock& after) {
    return after.requests < before.requests || after.connections < before.connections ||
           after.errors < before.errors || after.droppedRequests < before.droppedRequests ||
           after.redirects < before.redirects || after.clientErrors < before.clientErrors ||
           after.serverErrors < before.serverErrors ||
           bytesSank(before.bytesSent, after.bytesSent) ||
           bytesSank(before.bytesReceived, after.bytesReceived);
}

bool sank(const CategoryCounters& before, const CategoryCounters& after) {
    return after.requests < before.requests || after.errors < before.errors ||
           after.droppedRequests < before.droppedRequests ||
           after.responseTimeSum < before.responseTimeSum ||
           bytesSank(before.bytesSent, after.bytesSent);
}

CounterBlock difference(const CounterBlock& before, const CounterBlock& after) {
    CounterBlock result{};
    result.connections = after.connections - before.connections;
    result.requests = after.requests - before.requests;
    result.bytesSent = after.bytesSent - before.bytesSent;
    result.bytesReceived = after.bytesReceived - before.bytesReceived;
    result.errors = after.errors - before.errors;
    result.droppedRequests = after.droppedRequests - before.droppedRequests;
    result.redirects = after.redirects - before.redirects;
    result.clientErrors = after.clientErrors - before.clientErrors;
    result.serverErrors = after.serverErrors - before.serverErrors;
    return result;
}

CategoryCounters difference(const CategoryCounters& before, const CategoryCounters& after) {
    CategoryCounters result{};
    result.requests = after.requests - before.requests;
    result.bytesSent = after.bytesSent - before.bytesSent;
    result.errors = after.errors - before.errors;
    result.droppedRequests = after.droppedRequests - before.droppedRequests;
    result.responseTimeSum = after.responseTimeSum - before.responseTimeSum;
    return result;
}

bool sitesCleared(const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (sank(before.site[s], after.site[s])) return true;
    }
    return false;
}

bool categoriesCleared(const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        for (int c = 0; c < kMaxCategories; ++c) {
            if (sank(before.category[s][c], after.category[s][c])) return true;
        }
    }
    return false;
}

ResultStruct recordIncrease(const ResultStruct& before, const ResultStruct& after) {
    ResultStruct result{};
    static constexpr ResultStruct kNothing{};
    const ResultStruct& total = sank(before.total, after.total) ? kNothing : before;
    const ResultStruct& sites = sitesCleared(before, after) ? kNothing : before;
    const ResultStruct& categories = categoriesCleared(before, after) ? kNothing : before;
    result.total = difference(total.total, after.total);
    for (int s = 0; s < kMaxSites; ++s) {
        result.site[s] = difference(sites.site[s], after.site[s]);
        for (int c = 0; c < kMaxCategories; ++c) {
            result.category[s][c] = difference(categories.category[s][c], after.category[s][c]);
        }
    }
    return result;
}

}  // namespace

Sample takeSample(const Server& server) {
    Segment segment(server.handoff.shmid, server.handoff.structures, Segment::Access::kRead);
    Sample sample;
    sample.when = std::chrono::steady_clock::now();
    sample.measuredSince = segmentStatus(server.handoff.shmid).created;
    sample.config = copyConfiguration(segment);
    sample.version = sample.config.info->version;
    sample.records.resize(static_cast<std::size_t>(segment.structures()));
    for (std::int32_t i = 0; i < segment.structures(); ++i) {
        sample.steady &= segment.copyRecord(i, sample.records[static_cast<std::size_t>(i)]);
    }
    return sample;
}

CountSet countsOf(const std::vector<ResultStruct>& records) {
    CountSet sum;
    for (const ResultStruct& record : records) add(sum, withoutTaken(record));
    return sum;
}

void addIncrease(CountSet& sum, const std::vector<ResultStruct>& before,
                 const std::vector<ResultStruct>& after) {
    for (std::size_t i = 0; i < after.size(); ++i) {
        ResultStruct earlier = i < before.size() ? withoutTaken(before[i]) : ResultStruct{};
        add(sum, recordIncrease(earlier, withoutTaken(after[i])));
    }
}

CountSet increase(const std::vector<ResultStruct>& before, const std::vector<ResultStruct>& after) {
    CountSet sum;
    addIncrease(sum, before, after);
    return sum;
}

}  // namespace tolvane::agent
