// What the collector knows: the long totals of every server, by name, and how
// it is getting on. Written by the collector's loop, read by the web pages,
// both under the collector's mutex.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "collector/history.h"
#include "counts/counts.h"

namespace tolvane::agent {

// Servers, sites and categories of which nothing was seen for so many seconds are
// forgotten.
inline constexpr std::time_t kKeptFor = 30L * 86400;

struct CategoryTally {
    std::string label;
    CategoryCounts counts;
    // Responses that `counts.responseTimeSum` is the sum over. Requests count
    // when they begin, so this is what was answered or still may be; it never
    // goes back.
    std::uint64_t answered = 0;
    History history;
    bool configured = false;  // the server's latest configuration names it
    std::time_t seen = 0;     // when it was configured or counted last
    bool unkept = true;       // differs from what is written down
};

struct SiteTally {
    std::string name;
    TrafficCounts counts;
    std::vector<CategoryTally> categories;
    History history;  // response times: those of the site's categories
    bool configured = false;
    std::time_t seen = 0;
    bool unkept = true;
};

enum class WatchState {
    kLive,        // processes of it count into the segment
    kEnding,      // it has stopped; some processes remain
    kStale,       // nothing of it runs any more, but its segment remains
    kHeld,        // another collector takes its counts
    kUnreadable,  // the segment or the handoff file cannot be used
};
inline constexpr WatchState kWatchStates[] = {WatchState::kLive, WatchState::kEnding,
                                              WatchState::kStale, WatchState::kHeld,
                                              WatchState::kUnreadable};
const char* watchStateName(WatchState state);  // "live", "ending", "stale", "held", "unreadable"

// One run of a server.
struct RunState {
    WatchState state = WatchState::kUnreadable;
    std::string why;  // "12 processes attached", "held by collector 4711", ...
    std::int32_t shmid = -1;
    pid_t pid = 0;            // from the handoff file's name
    pid_t parentPid = -1;     // the server's main process; -1 while unknown
    std::time_t started = 0;  // creation of the segment
    std::int32_t records = 0;
    std::int32_t version = 0;   // of the configuration in the segment
    std::size_t processes = 0;  // attached to the segment, besides ourselves
};

// A server over all its runs; its addresses are its name.
struct ServerTally {
    std::string name;  // "*:80,10.0.0.1:443"
    std::string type;  // "APACHE", "NETSCAPE"
    TrafficCounts total;
    std::vector<SiteTally> sites;
    History history;                // response times: those of all categories
    std::vector<RunState> runs;     // those that have a segment now; mostly one
    std::uint64_t takings = 0;      // since the collector's start
    std::uint64_t busyRecords = 0;  // left for the next taking, since a process held the lock
    std::time_t lastTaking = 0;     // 0: none since the collector's start
    std::time_t seen = 0;           // when it had a run last
    bool unkept = true;             // of the total
};

struct CollectorHealth {
    std::time_t started = 0;
    double interval = 0;  // seconds between two rounds of takings
    std::uint64_t rounds = 0;
    std::time_t lastRound = 0;
    double roundSeconds = 0;  // spent in all rounds together
    double lockSeconds = 0;   // locks of records held, all together
    double longestLockSeconds = 0;
    std::uint64_t storeFailures = 0;   // rounds whose totals could not be written down
    bool storeWorks = true;            // the last attempt succeeded
    std::string configFile;            // empty: none was given
    bool configValid = true;           // the file as it is now; servers keep the last valid one
    std::time_t configLoaded = 0;      // when the last valid one was read
    std::uint64_t configWritten = 0;   // configurations given to servers
    std::uint64_t configFailures = 0;  // servers that could not be given one
};

struct CollectorState {
    CollectorHealth health;
    std::map<std::string, ServerTally> servers;  // by name
};

}  // namespace tolvane::agent
