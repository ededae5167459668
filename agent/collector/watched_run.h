// A run of a server: its segment, and the progress of the collection.
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

// Identifies a run uniquely, also after a reboot.
struct RunKey {
    std::int32_t shmid = -1;
    std::time_t created = 0;
    pid_t pid = 0;

    auto operator<=>(const RunKey&) const = default;
};

// The data with which another collector continues.
struct RunProgress {
    NameTable names;
    std::vector<ResultStruct> records;  // copies of the last collection
};

struct CollectionCost {
    std::uint64_t busyRecords = 0;  // left for the next collection
    std::chrono::nanoseconds locked{0};
    std::chrono::nanoseconds longestLock{0};
};

// A collection adds the differences to the last copy of each record and changes
// nothing in the segment. It therefore has no intermediate state: after a kill
// at any point the next collector continues from the last saved copy.
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

    // Continues with the present counts as the last collection, because the progress of
    // the earlier collector is not known.
    void startFromPresentCounts();

    // Adds the increase of every record since the last collection, except for sites
    // and categories without a name. Returns whether anything was added.
    bool collect(CountSet& added, CollectionCost& cost);

    // Whether this collector has collected from the run before: new counts are recent.
    bool collectedBefore() const { return collectedBefore_; }

    // The present state. `ended`: the segment was removed and no other process is
    // attached, so nothing more can be counted.
    RunStatus status(bool& ended) const;

  private:
    bool copyOne(std::int32_t record, ResultStruct& copy, CollectionCost& cost);

    Handoff handoff_;
    RunKey key_;
    Segment segment_;
    std::vector<std::int32_t> semaphores_;  // -1: not a semaphore of the server
    RunProgress progress_;
    bool collectedBefore_ = false;
    std::vector<bool> seen_;  // per record: collected at least once
};

}  // namespace tolvane::agent
