// Measured servers, found by their handoff files, segments and processes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "segment/segment.h"
#include "servers/handoff.h"
#include "servers/run_state.h"

namespace tolvane::agent {

struct Server {
    Handoff handoff;
    RunState state = RunState::kStale;
    std::string reason;        // of the state
    std::string misled;        // what the handoff file, as it stood, said wrongly
    bool ownsSegment = false;  // the segment that exists under the id is this server's
    std::int32_t version = 0;  // meaningful when ownsSegment
    std::int32_t parentPid = -1;
    pid_t process = 0;          // the server's main process; 0 when none is known
    std::size_t processes = 0;  // attached ones that serve
};

// Why the segment that exists under the handoff file's id is not the one that
// the server created; empty when it is.
std::string foreignSegment(const Handoff& handoff, const SegmentStatus& status);

// "*:80,10.0.0.1:443", for messages: "server 4711 (*:80)".
std::string nameOf(const Server& server);

std::vector<Server> findServers();

// The one that `wanted` names: a process id of the server, a segment id, or
// one of its "address:port". Without it, the only live one. Throws Error
// (kNotFound when there is none, kInvalidInput when several match).
Server selectServer(const std::vector<Server>& servers, const std::optional<std::string>& wanted);

}  // namespace tolvane::agent
