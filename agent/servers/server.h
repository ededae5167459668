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
    std::string damage;        // of the handoff file; empty if it identifies the segment
    bool ownsSegment = false;  // the segment with the identifier belongs to this server
    std::int32_t version = 0;  // meaningful when ownsSegment
    std::int32_t parentPid = -1;
    pid_t process = 0;          // the server's main process; 0 while unknown
    std::size_t processes = 0;  // attached processes, without readers
    bool published = false;     // any process has published counts
    int pending = 0;            // seconds until the configuration is in force
};

// "*:80,10.0.0.1:443", for messages: "server 4711 (*:80)".
std::string nameOf(const Server& server);

std::vector<Server> findServers();

// Selects the server with the process id, segment id or "address:port" in `wanted`,
// or the only live server if `wanted` is empty. Throws Error (kNotFound without a
// match, kInvalidInput with several).
Server selectServer(const std::vector<Server>& servers, const std::optional<std::string>& wanted);

}  // namespace tolvane::agent
