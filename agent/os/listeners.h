// Who listens on a TCP port.
#pragma once

#include <sys/types.h>

#include <vector>

namespace tolvane::agent {

// Only the processes that we may look into.
std::vector<pid_t> listenersOn(int port);

}  // namespace tolvane::agent
