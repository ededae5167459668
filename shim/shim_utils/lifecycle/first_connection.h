// What an Apache process does at its first HTTP connection.
#pragma once

namespace tolvane {

// Makes the process ready. Of several threads here at once the first does it and
// the others wait, so that no request meets an empty configuration.
void makeReadyForConnections();

// In a forked child: frees the lock that another thread may have held at the fork.
void freeFirstConnectionLockAfterFork();

}  // namespace tolvane
