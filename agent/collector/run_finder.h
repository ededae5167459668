// Which runs there are: looks at the handoff files, claims the servers that
// nobody else takes from, and attaches them.
#pragma once

#include <list>
#include <map>
#include <string>
#include <vector>

#include "collector/claims.h"
#include "collector/configurer.h"
#include "collector/log.h"
#include "collector/totals_store.h"
#include "collector/watched_run.h"

namespace tolvane::agent {

// A run that we take counts from.
struct Watched {
    Watched(const Handoff& handoff, const SegmentStatus& status);

    WatchedRun run;
    std::string server;  // its name
    RunState state;
    ConfigDealings dealings;
    bool ended = false;
    bool unkept = true;  // what was taken is not written down yet
};

class RunFinder {
  public:
    // `store` knows where an earlier collector stopped.
    explicit RunFinder(TotalsStore& store);

    void look();
    void release(const Watched& watched) { claims_.release(watched.run.key().shmid); }

    std::list<Watched>& watched() { return watched_; }
    const std::list<Watched>& watched() const { return watched_; }
    // Those that are not taken from, by server.
    const std::map<std::string, std::vector<RunState>>& others() const { return others_; }
    // "APACHE" or "NETSCAPE"; empty for a server that was never seen.
    std::string typeOf(const std::string& server) const;

  private:
    void examine(const Handoff& handoff);
    void attach(const Handoff& handoff, const SegmentStatus& status);
    void leave(const Handoff& handoff, WatchState state, const std::string& why);
    const Watched* watchedRun(std::int32_t shmid) const;

    TotalsStore& store_;
    Claims claims_;
    std::list<Watched> watched_;
    std::map<std::string, std::vector<RunState>> others_;
    std::map<std::string, std::string> types_;          // by server
    std::map<std::string, LastingCondition> troubles_;  // by handoff file
};

}  // namespace tolvane::agent
