// A server with threads that was taken for one connection per process.
#pragma once

#include <optional>
#include <string>

#include "servers/server.h"

namespace tolvane::agent {

struct ThreadsFault {
    std::string text;
    std::string remedy;
};

// Nothing for a server that was taken for what it is, and when its processes
// may not be looked into. More than one thread alone is no fault: a library may
// have started one that serves nobody.
std::optional<ThreadsFault> threadsFault(const Server& server);

}  // namespace tolvane::agent
