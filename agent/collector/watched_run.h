// One run of a server: its segment, and what was collected from it so far.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <ctime>
#include <vector>

#include "collector/name_table.h"
#include "collector/state.h"
#include "counts/counts.h"
#include "segment/segment.h"
#include "servers/handoff.h"

namespace tolvane::agent {

// Identifies a run, also after a reboot.
struct RunKey {
    std::int32_t shmid = -1;
    std::time_t created = 0;
    pid_t pid = 0;

    auto operator<=>(const RunKey&) const = default;
};

// What another collector needs to continue with a run.
struct RunProgress {
    NameTable names;
    std::vector<ResultStruct> records;  // as they were at the last collection
};

struct CollectionCost {
    std::uint64_t busyRecords = 0;  // left for the next collection
    std::chrono::nanoseconds locked{0};
    std::chrono::nanoseconds longestLock{0};
};

// A collection adds the differences to the last copy of each record and changes
// nothing in the segment. So it has no intermediate state: a collector that is
// killed at any point continues from what was saved last, and counters may wrap.
class WatchedRun {
  public:
    // Attaches the segment. Throws Error.
    WatchedRun(const Handoff& handoff, const SegmentStatus& status);

    const Handoff& handoff() const { return handoff_; }
    const RunKey& key() const { return key_; }
    Segment& segment() { return segment_; }
    const RunProgress& progress() const { return progress_; }
    NameTable& names() { return progress_.names; }

    // Continues from where an earlier collector stopped.
    void resume(RunProgress progress);

    // Adds what was counted in every record since the last collection, except for
    // sites and categories without a name. Returns whether anything was.
    bool collect(CountSet& added, CollectionCost& cost);

    // This collector has collected from it before, so new counts are recent.
    bool collectedBefore() const { return collectedBefore_; }

    // The present state. `ended`: the segment was removed and no other process is
    // attached, so nothing more can be counted.
    RunStatus status(bool& ended) const;

  private:
    bool copyOne(std::int32_t record, ResultStruct& copy, CollectionCost& cost);

    Handoff handoff_;
    RunKey key_;
    Segment segment_;
    std::vector<std::int32_t> semaphores_;  // -1: not one of the server's own
    RunProgress progress_;
    bool collectedBefore_ = false;
    std::vector<bool> seen_;  // per record: collected at least once
};

}  // namespace tolvane::agent
