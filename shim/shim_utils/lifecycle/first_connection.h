// Preparation of an Apache process at its first HTTP connection.
#pragma once

namespace tolvane {

// Makes the process ready. If several threads call this at the same time, the first
// does the work and the others wait, so that no request is matched against an empty
// configuration.
void makeReadyForConnections();

// For a forked child: initialises the lock again, which another thread may have
// held at the fork.
void freeFirstConnectionLockAfterFork();

}  // namespace tolvane
