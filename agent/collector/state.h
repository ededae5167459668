// The state of the collector: the totals of every server, by name, and the
// collector's own health. The collector's loop writes it and the web pages read
// it, both under the collector's mutex.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "collector/history.h"
#include "counts/counts.h"
#include "servers/run_state.h"

namespace tolvane::agent {

// Servers, sites and categories that were not seen for this long are dropped.
inline constexpr std::time_t kRetention = 30L * 86400;  // seconds

struct CategoryTally {
    std::string label;
    CategoryCounts counts;
    // Responses whose times `counts.responseTimeSum` adds up: requests less errors
    // and drops. Requests count when they begin, so that difference can decrease;
    // this number never decreases.
    std::uint64_t responses = 0;
    History history;
    bool configured = false;  // contained in the server's latest configuration
    std::time_t seen = 0;     // when it was last configured or counted
    bool dirty = true;        // differs from the database
};

struct SiteTally {
    std::string name;
    TrafficCounts counts;
    std::vector<CategoryTally> categories;
    History history;  // response times: those of the site's categories
    bool configured = false;
    std::time_t seen = 0;
    bool dirty = true;
};

// One run of a server.
struct RunStatus {
    RunState state = RunState::kUnreadable;
    std::string reason;  // "12 processes attached", ...
    std::int32_t shmid = -1;
    pid_t pid = 0;            // from the name of the handoff file
    pid_t parentPid = -1;     // the server's main process; -1 while unknown
    std::time_t started = 0;  // creation of the segment
    std::int32_t records = 0;
    std::int32_t version = 0;   // of the configuration in the segment
    std::size_t processes = 0;  // attached to the segment, besides the collector
    bool published = false;     // any process has published counts
    int pending = 0;            // seconds until the configuration is in force
};

// A server over all its runs, named by its addresses.
struct ServerTally {
    std::string name;  // "*:80,10.0.0.1:443"
    std::string type;  // "APACHE", "NETSCAPE"
    TrafficCounts total;
    std::vector<SiteTally> sites;
    History history;                 // response times: those of all categories
    std::vector<RunStatus> runs;     // runs that have a segment now; usually one
    std::uint64_t collections = 0;   // since the collector started
    std::uint64_t busyRecords = 0;   // skipped in a collection because their lock was held
    std::time_t lastCollection = 0;  // 0: no collection since the collector started
    std::time_t seen = 0;            // when it last had a run
    bool dirty = true;               // the total differs from the database
};

struct CollectorHealth {
    std::time_t started = 0;
    double interval = 0;  // seconds between two rounds
    std::uint64_t rounds = 0;
    std::time_t lastRound = 0;
    double roundSeconds = 0;  // sum over all rounds
    double lockSeconds = 0;   // for which locks of records were held, summed
    double longestLockSeconds = 0;
    std::uint64_t storeFailures = 0;  // rounds whose totals could not be saved
    bool storeWorks = true;           // the last attempt succeeded
    std::string configFile;           // empty: no configuration
    bool configValid = true;          // the present file; servers keep the last valid configuration
    std::time_t configLoaded = 0;     // when the last valid file was read
    std::uint64_t configWritten = 0;  // configurations written to servers
    std::uint64_t configFailures = 0;  // that could not be written
};

struct CollectorState {
    CollectorHealth health;
    std::map<std::string, ServerTally> servers;  // by name
};

}  // namespace tolvane::agent
