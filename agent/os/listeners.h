// Processes that listen on a TCP port.
#pragma once

#include <sys/types.h>

#include <vector>

namespace tolvane::agent {

// Only processes that may be examined.
std::vector<pid_t> listenersOn(int port);

}  // namespace tolvane::agent
