#include "servers/run_state.h"

#include <fmt/format.h>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

const char* runStateName(RunState state) {
    switch (state) {
        case RunState::kLive:
            return "live";
        case RunState::kEnding:
            return "ending";
        case RunState::kStale:
            return "stale";
        case RunState::kHeld:
            return "held";
        case RunState::kUnreadable:
            break;
    }
    return "unreadable";
}

RunJudgement judgeRun(const RunFacts& facts) {
    if (facts.processes == 0) {
        return {RunState::kStale, fmt::format("no process uses segment {} any more", facts.shmid)};
    }
    std::string attached =
        facts.processes == 1 ? "1 process" : fmt::format("{} processes", facts.processes);
    if (facts.segmentRemoved || facts.version == kVersionRemoved) {
        return {RunState::kEnding,
                fmt::format("the server has stopped; {} still attached", attached)};
    }
    if (facts.mainEnded) {
        return {RunState::kEnding, fmt::format("its main process {} has ended; {} still attached",
                                               facts.mainProcess, attached)};
    }
    std::string marks;
    if (facts.mainProcess <= 0) {
        marks = ", no connection accepted yet";
    } else if (!facts.published) {
        marks = ", nothing published yet";
    }
    if (facts.pending > 0) {
        marks +=
            fmt::format(", configuration {} in force within {} s", facts.version, facts.pending);
    }
    return {RunState::kLive, fmt::format("{} attached{}", attached, marks)};
}

}  // namespace tolvane::agent
