// What an Apache process does at its first HTTP connection.
#pragma once

#include <atomic>

namespace tolvane {

// Whether this process has begun to serve HTTP connections, and whether it is
// ready for them: its shared record is fixed and, with threads, its
// configuration taken and its monitor started.
extern std::atomic<bool> servesConnections;
extern std::atomic<bool> readyForConnections;

// Makes the process ready. Of several threads here at once the first does it and
// the others wait, so that no request meets an empty configuration.
void makeReadyForConnections();

// In a forked child: frees the lock that another thread may have held at the fork.
void freeFirstConnectionLockAfterFork();

}  // namespace tolvane
