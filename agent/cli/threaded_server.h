// Detects a server with threads that was recognised as type 0 (one connection per
// process).
#pragma once

#include <optional>
#include <string>

#include "servers/server.h"

namespace tolvane::agent {

struct ThreadsFault {
    std::string text;
    std::string remedy;
};

// Empty for a server whose type was recognised correctly, or whose processes cannot be
// examined. Several threads alone are not a fault: a library may have started a thread
// that serves no connections.
std::optional<ThreadsFault> threadsFault(const Server& server);

}  // namespace tolvane::agent
