// Finds runs by the handoff files, locks the runs that no other collector owns, and
// attaches their segments.
#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

#include "collector/configurer.h"
#include "collector/log.h"
#include "collector/ownership_lock.h"
#include "collector/totals_store.h"
#include "collector/watched_run.h"
#include "servers/run_search.h"

namespace tolvane::agent {

// A run whose counts are collected.
struct Watched {
    Watched(const Handoff& handoff, const SegmentStatus& segment);

    WatchedRun run;
    std::string server;  // its name
    RunStatus status;
    ConfigSync sync;
    bool ended = false;
    bool dirty = true;  // its progress differs from the database
    // Collected since the last round, which is when the totals change.
    CountSet early;
    CollectionCost earlyCost;
    bool hasEarly = false;
};

class RunFinder {
  public:
    // `store` has the progress of an earlier collector.
    explicit RunFinder(TotalsStore& store);

    void update();
    void release(const Watched& watched) { locks_.release(watched.run.key().shmid); }

    std::list<Watched>& watched() { return watched_; }
    const std::list<Watched>& watched() const { return watched_; }
    // Runs that are not collected, by server.
    const std::map<std::string, std::vector<RunStatus>>& others() const { return others_; }
    // "APACHE" or "NETSCAPE"; empty for an unknown server.
    std::string typeOf(const std::string& server) const;

  private:
    void examine(const FoundRun& run);
    void attach(const Handoff& handoff, const SegmentStatus& status);
    const char* resume(Watched& watched);
    void removeLeftFile(const FoundRun& run);
    void addOther(const Handoff& handoff, RunState state, const std::string& reason);
    const Watched* watchedRun(std::int32_t shmid) const;

    TotalsStore& store_;
    OwnershipLock locks_;
    std::list<Watched> watched_;
    std::map<std::string, std::vector<RunStatus>> others_;
    std::map<std::string, std::string> types_;          // by server
    std::map<std::string, LastingCondition> troubles_;  // by handoff file
};

}  // namespace tolvane::agent
