// TCP sockets of processes.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace tolvane::agent {

// Processes that listen on the port. Only processes that may be examined.
std::vector<pid_t> listenersOn(int port);

// The addresses on which a process listens, as a server's configuration names them:
// "*:80" for all addresses and for IPv6, "10.0.0.1:443". Empty if it cannot be examined.
std::vector<std::string> listenAddressesOf(pid_t pid);

// Connections to the ports that the server has ended in the last minute (TIME_WAIT).
std::size_t endedConnections(const std::set<int>& ports);

}  // namespace tolvane::agent
