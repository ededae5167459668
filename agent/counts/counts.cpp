#include "counts/counts.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tolvane::agent {

namespace {

void add(CategoryCounts& sum, const CategoryCounters& before, const CategoryCounters& after) {
    sum.addDifference(before, after);
    double seconds = after.responseTimeSum - before.responseTimeSum;
    if (std::isfinite(seconds)) sum.responseTimeSum += seconds;
}

void add(CountSet& sum, const ResultStruct& record) {
    sum.total.addDifference({}, record.total);
    for (int s = 0; s < kMaxSites; ++s) {
        sum.site[s].addDifference({}, record.site[s]);
        for (int c = 0; c < kMaxCategories; ++c) {
            add(sum.category[s][c], {}, record.category[s][c]);
        }
    }
}

// Detects that a group was reset between two copies of it. Any counter may have
// wrapped instead, but only byte counters advance by half of their range, and
// not within seconds. When a group was collected by another agent before the
// first copy and is dirty in the second, any lower counter means a reset; if no
// counter is lower, an exiting worker has added to it without a reset.
class ResetDetector {
  public:
    ResetDetector(Gap gap, std::int32_t dirtyBefore, std::int32_t dirtyAfter)
        : gap_(gap), collectedBefore_(dirtyBefore == 0 && dirtyAfter != 0) {}

    template <typename Block>
    bool wasReset(const Block& before, const Block& after) const {
        for (const Counter<Block>& counter : countersOf<Block>()) {
            if (decreased(counter.unit, before.*counter.member, after.*counter.member)) return true;
        }
        if constexpr (std::is_same_v<Block, CategoryCounters>) {
            return after.responseTimeSum < before.responseTimeSum;
        }
        return false;
    }

  private:
    bool decreased(CounterUnit unit, std::uint32_t before, std::uint32_t after) const {
        constexpr std::uint32_t kHalfRange = 1U << 31;
        if (collectedBefore_) return after < before;
        if (unit == CounterUnit::kBytes && gap_ == Gap::kAny) return false;
        return after - before >= kHalfRange;
    }

    Gap gap_;
    bool collectedBefore_;
};

// Most of a record does not change from one copy to the next.
template <typename Block>
bool differ(const Block& a, const Block& b) {
    return std::memcmp(&a, &b, sizeof a) != 0;
}

bool sitesReset(const ResetDetector& detector, const ResultStruct& before,
                const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (detector.wasReset(before.site[s], after.site[s])) return true;
    }
    return false;
}

bool categoriesReset(const ResetDetector& detector, const ResultStruct& before,
                     const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (!differ(before.category[s], after.category[s])) continue;
        for (int c = 0; c < kMaxCategories; ++c) {
            if (detector.wasReset(before.category[s][c], after.category[s][c])) return true;
        }
    }
    return false;
}

void addSites(CountSet& sum, const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (!differ(before.site[s], after.site[s])) continue;
        sum.site[s].addDifference(before.site[s], after.site[s]);
    }
}

void addCategories(CountSet& sum, const ResultStruct& before, const ResultStruct& after) {
    for (int s = 0; s < kMaxSites; ++s) {
        if (!differ(before.category[s], after.category[s])) continue;
        for (int c = 0; c < kMaxCategories; ++c) {
            add(sum.category[s][c], before.category[s][c], after.category[s][c]);
        }
    }
}

}  // namespace

ResultStruct withoutStaleGroups(const ResultStruct& record) {
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
    for (const ResultStruct& record : records) add(sum, withoutStaleGroups(record));
    return sum;
}

bool noSiteCounted(const Sample& sample) {
    if (!sample.config.steady || sample.version <= 0 || sample.config.info->numSites == 0) {
        return false;
    }
    // After a reset of the sites this cannot be judged.
    bool published = std::any_of(sample.records.begin(), sample.records.end(),
                                 [](const ResultStruct& record) { return record.sitesDirty == 1; });
    CountSet counts = countsOf(sample.records);
    auto counted = [](const TrafficCounts& site) { return site[&CounterBlock::requests] > 0; };
    return published && counts.total[&CounterBlock::requests] > 0 &&
           std::none_of(std::begin(counts.site), std::end(counts.site), counted);
}

void addIncrease(CountSet& sum, const ResultStruct& before, const ResultStruct& after, Gap gap) {
    static constexpr ResultStruct kNothing{};
    ResetDetector ofTotal(gap, before.totalDirty, after.totalDirty);
    ResetDetector ofSites(gap, before.sitesDirty, after.sitesDirty);
    ResetDetector ofCategories(gap, before.categoriesDirty, after.categoriesDirty);
    bool totalReset = ofTotal.wasReset(before.total, after.total);
    sum.total.addDifference(totalReset ? kNothing.total : before.total, after.total);
    addSites(sum, sitesReset(ofSites, before, after) ? kNothing : before, after);
    addCategories(sum, categoriesReset(ofCategories, before, after) ? kNothing : before, after);
}

void addIncrease(CountSet& sum, const std::vector<ResultStruct>& before,
                 const std::vector<ResultStruct>& after) {
    for (std::size_t i = 0; i < after.size(); ++i) {
        ResultStruct earlier = i < before.size() ? withoutStaleGroups(before[i]) : ResultStruct{};
        addIncrease(sum, earlier, withoutStaleGroups(after[i]), Gap::kSeconds);
    }
}

CountSet increase(const std::vector<ResultStruct>& before, const std::vector<ResultStruct>& after) {
    CountSet sum;
    addIncrease(sum, before, after);
    return sum;
}

}  // namespace tolvane::agent
