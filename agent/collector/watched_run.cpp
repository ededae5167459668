#include "collector/watched_run.h"

#include <algorithm>
#include <cstring>

#include "os/process.h"
#include "segment/record_lock.h"
#include "servers/attached.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

// The counts that another agent had collected before this collector started. They
// are not added to the totals.
ResultStruct collectedByOthers(const ResultStruct& record) {
    ResultStruct before{};
    if (record.totalDirty == 0) before.total = record.total;
    if (record.sitesDirty == 0) std::memcpy(before.site, record.site, sizeof before.site);
    if (record.categoriesDirty == 0) {
        std::memcpy(before.category, record.category, sizeof before.category);
    }
    return before;
}

// The record with the old counts at indices without a name: their increase is
// collected when the name is known.
ResultStruct withNamed(const ResultStruct& before, const ResultStruct& now,
                       const NameTable& names) {
    ResultStruct named = now;
    for (std::size_t s = 0; s < names.size(); ++s) {
        if (names[s].name.empty()) named.site[s] = before.site[s];
        for (std::size_t c = 0; c < kMaxCategories; ++c) {
            if (names[s].labels[c].empty()) named.category[s][c] = before.category[s][c];
        }
    }
    return named;
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
    progress_.records.resize(semaphores_.size());
    seen_.assign(semaphores_.size(), false);
}

void WatchedRun::resume(RunProgress progress) {
    if (progress.records.size() != progress_.records.size()) return;
    progress_ = std::move(progress);
    seen_.assign(seen_.size(), true);
}

void WatchedRun::startFromPresentCounts() {
    for (std::int32_t i = 0; i < segment_.structures(); ++i) {
        segment_.copyRecordWithoutLock(i, progress_.records[static_cast<std::size_t>(i)]);
    }
    seen_.assign(seen_.size(), true);
}

bool WatchedRun::copyOne(std::int32_t record, ResultStruct& copy, CollectionCost& cost) {
    std::int32_t semaphore = semaphores_[static_cast<std::size_t>(record)];
    if (semaphore >= 0) {
        // A publication takes microseconds. A process that is stopped during a
        // publication must not block the collector.
        constexpr auto kPatience = 5ms;
        std::chrono::nanoseconds held{0};
        LockedCopy result = copyUnderLock(segment_, record, semaphore, kPatience, copy, held);
        cost.locked += held;
        cost.longestLock = std::max(cost.longestLock, held);
        if (result != LockedCopy::kGone) return result == LockedCopy::kDone;
    }
    // A server without semaphores, or a server that has removed them at its end.
    return segment_.copyRecordWithoutLock(record, copy);
}

bool WatchedRun::collect(CountSet& added, CollectionCost& cost) {
    bool changed = false;
    for (std::int32_t i = 0; i < segment_.structures(); ++i) {
        ResultStruct& before = progress_.records[static_cast<std::size_t>(i)];
        ResultStruct now;
        if (!copyOne(i, now, cost)) {
            ++cost.busyRecords;
            continue;
        }
        if (!seen_[static_cast<std::size_t>(i)]) before = collectedByOthers(now);
        seen_[static_cast<std::size_t>(i)] = true;
        auto unchanged = [&] { return std::memcmp(&before, &now, sizeof now) == 0; };
        if (unchanged()) continue;
        now = withNamed(before, now, progress_.names);
        if (unchanged()) continue;
        addIncrease(added, before, now, Gap::kAny);
        before = now;
        changed = true;
    }
    dropUndoEntries();
    collectedBefore_ = true;
    return changed;
}

RunStatus WatchedRun::status(bool& ended) const {
    RunStatus run;
    run.shmid = key_.shmid;
    run.pid = key_.pid;
    run.started = key_.created;
    run.records = segment_.structures();
    run.version = segment_.version();
    run.parentPid = segment_.parentPid();
    SegmentStatus segment = segmentStatus(key_.shmid);
    run.processes = segment.attached > 0 ? segment.attached - 1 : 0;
    bool removed = !segment.exists || segment.removalPending;
    run.published = segment_.published();
    run.pending = secondsUntilInForce(writtenAt(handoff_.path), run.version);
    bool mainEnded = run.parentPid > 0 && !processExists(run.parentPid);
    auto judge = [&] {
        return judgeRun({run.shmid, run.version, removed, run.parentPid, mainEnded, run.processes,
                         run.published, run.pending});
    };
    RunJudgement judgement = judge();
    if (judgement.state == RunState::kEnding) {
        // The processes that remain may be other readers. Only now, because the search
        // reads the memory maps of all processes.
        AttachedProcesses attached = attachedProcesses(run.shmid, run.parentPid);
        run.processes = serverProcesses(segment.attached, attached);
        mainEnded = mainProcessOf(run.parentPid, segment.attached, attached).ended;
        judgement = judge();
    }
    ended = removed && run.processes == 0;
    run.state = judgement.state;
    run.reason = std::move(judgement.reason);
    return run;
}

}  // namespace tolvane::agent
