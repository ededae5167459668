#include "collector/watched_run.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "os/text.h"
#include "segment/record_lock.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

// What another agent had taken before our first look is none of our counts.
ResultStruct takenBefore(const ResultStruct& record) {
    ResultStruct before{};
    if (record.totalDirty == 0) before.total = record.total;
    if (record.sitesDirty == 0) std::memcpy(before.site, record.site, sizeof before.site);
    if (record.categoriesDirty == 0) {
        std::memcpy(before.category, record.category, sizeof before.category);
    }
    return before;
}

// The record with the counts that no name is known for put back to what they
// were: they wait for their name.
ResultStruct withNamed(const ResultStruct& before, const ResultStruct& now, const Names& names) {
    ResultStruct named = now;
    for (std::size_t s = 0; s < names.size(); ++s) {
        if (names[s].name.empty()) named.site[s] = before.site[s];
        for (std::size_t c = 0; c < kMaxCategories; ++c) {
            if (names[s].labels[c].empty()) named.category[s][c] = before.category[s][c];
        }
    }
    return named;
}

bool isGone(pid_t pid) {
    return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

}  // namespace

WatchedRun::WatchedRun(const Handoff& handoff, const SegmentStatus& status)
    : handoff_(handoff),
      key_{handoff.shmid, status.created, handoff.pid},
      segment_(handoff.shmid, handoff.structures, Segment::Access::kWrite) {
    for (std::int32_t i = 0; i < segment_.structures(); ++i) {
        std::int32_t id = segment_.semaphoreOf(i);
        semaphores_.push_back(isSemaphoreOf(id, status) ? id : -1);
    }
    taken_.records.resize(semaphores_.size());
    seen_.assign(semaphores_.size(), false);
}

void WatchedRun::resume(TakenSoFar taken) {
    if (taken.records.size() != taken_.records.size()) return;
    taken_ = std::move(taken);
    seen_.assign(seen_.size(), true);
}

bool WatchedRun::copyOne(std::int32_t record, ResultStruct& copy, TakingCost& cost) {
    std::int32_t semaphore = semaphores_[static_cast<std::size_t>(record)];
    if (semaphore >= 0) {
        // A publication is a matter of microseconds; a process that is stopped in
        // the middle of one must not stop us.
        constexpr auto kPatience = 5ms;
        std::chrono::nanoseconds held{0};
        LockedCopy result = copyUnderLock(segment_, record, semaphore, kPatience, copy, held);
        cost.locked += held;
        cost.longestLock = std::max(cost.longestLock, held);
        if (result != LockedCopy::kGone) return result == LockedCopy::kDone;
    }
    // A server without semaphores, or one that has removed them at its end.
    return segment_.copyRecordWithoutLock(record, copy);
}

bool WatchedRun::take(CountSet& added, TakingCost& cost) {
    bool changed = false;
    for (std::int32_t i = 0; i < segment_.structures(); ++i) {
        ResultStruct& before = taken_.records[static_cast<std::size_t>(i)];
        ResultStruct now;
        if (!copyOne(i, now, cost)) {
            ++cost.busyRecords;
            continue;
        }
        if (!seen_[static_cast<std::size_t>(i)]) before = takenBefore(now);
        seen_[static_cast<std::size_t>(i)] = true;
        auto unchanged = [&] { return std::memcmp(&before, &now, sizeof now) == 0; };
        if (unchanged()) continue;
        now = withNamed(before, now, taken_.names);
        if (unchanged()) continue;
        addIncrease(added, before, now, Gap::kAny);
        before = now;
        changed = true;
    }
    dropLockNotes();
    tookBefore_ = true;
    return changed;
}

RunState WatchedRun::look(bool& ended) const {
    RunState state;
    state.shmid = key_.shmid;
    state.pid = key_.pid;
    state.started = key_.created;
    state.records = segment_.structures();
    state.version = segment_.version();
    state.parentPid = segment_.parentPid();
    SegmentStatus status = segmentStatus(key_.shmid);
    state.processes = status.attached > 0 ? status.attached - 1 : 0;
    bool removed = !status.exists || status.removalPending;
    ended = removed && state.processes == 0;
    std::string attached = state.processes == 1
                               ? "1 process attached"
                               : fmt::format("{} processes attached", state.processes);
    if (state.processes == 0) {
        state.state = WatchState::kStale;
        state.why = "no process uses its segment any more";
    } else if (removed || state.version == kVersionRemoved) {
        state.state = WatchState::kEnding;
        state.why = "it has stopped; " + attached;
    } else if (isGone(state.parentPid)) {
        state.state = WatchState::kEnding;
        state.why = fmt::format("its main process {} is gone; {}", state.parentPid, attached);
    } else {
        state.state = WatchState::kLive;
        state.why = attached;
    }
    return state;
}

}  // namespace tolvane::agent
