#include "counts/counts.h"

#include <algorithm>
#include <cmath>
#include <cstring>

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

// Judges whether a group was cleared between two copies. Any counter may have
// wrapped, but only bytes come in half the range of one, and those not within
// seconds. A group that stood taken and was then added to has been cleared when
// any counter is lower; when none is, an exiting worker has added to it.
class Judge {
  public:
    Judge(Gap gap, std::int32_t dirtyBefore, std::int32_t dirtyAfter)
        : gap_(gap), takenBefore_(dirtyBefore == 0 && dirtyAfter != 0) {}

    bool sank(const CounterBlock& before, const CounterBlock& after) const {
        return countSank(before.requests, after.requests) ||
               countSank(before.connections, after.connections) ||
               countSank(before.errors, after.errors) ||
               countSank(before.droppedRequests, after.droppedRequests) ||
               countSank(before.redirects, after.redirects) ||
               countSank(before.clientErrors, after.clientErrors) ||
               countSank(before.serverErrors, after.serverErrors) ||
               bytesSank(before.bytesSent, after.bytesSent) ||
               bytesSank(before.bytesReceived, after.bytesReceived);
    }
    bool sank(const CategoryCounters& before, const CategoryCounters& after) const {
        return countSank(before.requests, after.requests) ||
               countSank(before.errors, after.errors) ||
               countSank(before.droppedRequests, after.droppedRequests) ||
               after.responseTimeSum < before.responseTimeSum ||
               bytesSank(before.bytesSent, after.bytesSent);
    }

  private:
    static constexpr std::uint32_t kHalfRange = 1U << 31;

    bool countSank(std::uint32_t before, std::uint32_t after) const {
        return takenBefore_ ? after < before : after - before >= kHalfRange;
    }
    bool bytesSank(std::uint32_t before, std::uint32_t after) const {
        if (takenBefore_) return after < before;
        return gap_ == Gap::kSeconds && after - before >= kHalfRange;
    }

    Gap gap_;
    bool takenBefore_;
};

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

// Most of a record does not change from one look to the next.
template <typename Block>
bool differ(const Block& a, const Block& b) {
    return std::memcmp(&a, &b, sizeof a) != 0;
}

bool sitesCleared(const Judge& judge, const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (judge.sank(before.site[s], after.site[s])) return true;
    }
    return false;
}

bool categoriesCleared(const Judge& judge, const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (!differ(before.category[s], after.category[s])) continue;
        for (int c = 0; c < kMaxCategories; ++c) {
            if (judge.sank(before.category[s][c], after.category[s][c])) return true;
        }
    }
    return false;
}

void addSites(CountSet& sum, const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (!differ(before.site[s], after.site[s])) continue;
        add(sum.site[s], difference(before.site[s], after.site[s]));
    }
}

void addCategories(CountSet& sum, const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (!differ(before.category[s], after.category[s])) continue;
        for (int c = 0; c < kMaxCategories; ++c) {
            const CategoryCounters& earlier = before.category[s][c];
            add(sum.category[s][c], difference(earlier, after.category[s][c]));
        }
    }
}

}  // namespace

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

void addIncrease(CountSet& sum, const ResultStruct& before, const ResultStruct& after, Gap gap) {
    static constexpr ResultStruct kNothing{};
    Judge ofTotal(gap, before.totalDirty, after.totalDirty);
    Judge ofSites(gap, before.sitesDirty, after.sitesDirty);
    Judge ofCategories(gap, before.categoriesDirty, after.categoriesDirty);
    bool totalCleared = ofTotal.sank(before.total, after.total);
    add(sum.total, difference(totalCleared ? kNothing.total : before.total, after.total));
    addSites(sum, sitesCleared(ofSites, before, after) ? kNothing : before, after);
    addCategories(sum, categoriesCleared(ofCategories, before, after) ? kNothing : before, after);
}

void addIncrease(CountSet& sum, const std::vector<ResultStruct>& before,
                 const std::vector<ResultStruct>& after) {
    for (std::size_t i = 0; i < after.size(); ++i) {
        ResultStruct earlier = i < before.size() ? withoutTaken(before[i]) : ResultStruct{};
        addIncrease(sum, earlier, withoutTaken(after[i]), Gap::kSeconds);
    }
}

CountSet increase(const std::vector<ResultStruct>& before, const std::vector<ResultStruct>& after) {
    CountSet sum;
    addIncrease(sum, before, after);
    return sum;
}

}  // namespace tolvane::agent
