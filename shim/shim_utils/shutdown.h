// What happens when a process of the server ends normally.
#pragma once

namespace tolvane {

// In the server's parent: removes the semaphores, the segment and the handoff
// file. In a type 0 worker: publishes its last counts, once. Elsewhere, and
// with measurement off: nothing.
void cleanup();

// Registers cleanup to run at exit.
void cleanUpAtExit();

// Takes the lock file that serialises removals with every other server. True
// when taken, also when it cannot be created at all; false when somebody else
// has held it for ten seconds.
bool wa_lock();

// Deletes the lock file.
void wa_unlock();

}  // namespace tolvane
