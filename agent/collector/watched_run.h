// One run of a server: its segment, and what was taken from it so far.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <ctime>
#include <vector>

#include "collector/names.h"
#include "collector/state.h"
#include "counts/counts.h"
#include "segment/segment.h"
#include "servers/handoff.h"

namespace tolvane::agent {

// What tells a run from every other one, also after a reboot.
struct RunKey {
    std::int32_t shmid = -1;
    std::time_t created = 0;
    pid_t pid = 0;

    auto operator<=>(const RunKey&) const = default;
};

// What has to be kept of a run so that another collector can go on.
struct TakenSoFar {
    Names names;
    std::vector<ResultStruct> records;  // as they stood at the last taking
};

struct TakingCost {
    std::uint64_t busyRecords = 0;  // left for the next time
    std::chrono::nanoseconds locked{0};
    std::chrono::nanoseconds longestLock{0};
};

// Counts are taken as what came on since the last time, and nothing in the
// records is changed. So taking has no half-done state: whoever is killed at any
// point goes on from what was kept last, and counters that wrap do so unharmed.
class WatchedRun {
  public:
    // Attaches the segment. Throws Error.
    WatchedRun(const Handoff& handoff, const SegmentStatus& status);

    const Handoff& handoff() const { return handoff_; }
    const RunKey& key() const { return key_; }
    Segment& segment() { return segment_; }
    const TakenSoFar& taken() const { return taken_; }
    Names& names() { return taken_.names; }

    // Goes on where an earlier collector was.
    void resume(TakenSoFar taken);

    // Adds what came on in every record since the last time, but for sites and
    // categories without a name. Returns whether there was any change.
    bool take(CountSet& added, TakingCost& cost);

    // This collector has taken from it before: what comes on now came on just now.
    bool tookBefore() const { return tookBefore_; }

    // How the run is doing, by what the system says of the segment. `ended`: it
    // has been removed and nobody else is attached, so nothing can come on.
    RunState look(bool& ended) const;

  private:
    bool copyOne(std::int32_t record, ResultStruct& copy, TakingCost& cost);

    Handoff handoff_;
    RunKey key_;
    Segment segment_;
    std::vector<std::int32_t> semaphores_;  // -1: none that is the server's own
    TakenSoFar taken_;
    bool tookBefore_ = false;
    std::vector<bool> seen_;  // per record: taken from at least once
};

}  // namespace tolvane::agent
