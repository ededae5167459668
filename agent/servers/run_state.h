// The state of a run of a server, determined from its segment and its processes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace tolvane::agent {

enum class RunState {
    kLive,        // its processes count into the segment
    kEnding,      // it has stopped, or its main process has ended; some processes remain
    kStale,       // no process of the server remains
    kHeld,        // another collector collects its counts
    kUnreadable,  // the segment or the handoff file cannot be used
};
inline constexpr RunState kRunStates[] = {RunState::kLive, RunState::kEnding, RunState::kStale,
                                          RunState::kHeld, RunState::kUnreadable};
const char* runStateName(RunState state);  // "live", "ending", "stale", "held", "unreadable"

struct RunFacts {
    std::int32_t shmid = -1;
    std::int32_t version = 0;     // of the configuration in the segment
    bool segmentRemoved = false;  // or marked for removal
    pid_t mainProcess = -1;       // from the segment; -1 while unknown
    bool mainEnded = false;       // although other processes of the server remain
    std::size_t processes = 0;    // attached to the segment, besides readers
    bool published = true;        // any process has published counts
    int pending = 0;              // seconds until the configuration is in force
};

struct RunJudgement {
    RunState state = RunState::kStale;
    std::string reason;  // for the operator
};

RunJudgement judgeRun(const RunFacts& facts);

}  // namespace tolvane::agent
