// The monitor thread of a threaded server, the clean-up at exit, and the lock file
// that serialises the removal of segments.
#pragma once

namespace tolvane {

// Takes the segment's configuration, if there is one yet, and starts the
// thread, with every signal blocked: the server's signals are for the server's
// threads. A failure is logged.
void startMonitor();

// Sleeps as long as the configuration in force says. Without one, only until
// there is one; and of more than an hour, only until a newer configuration has
// been there for as long as that one says, so that a wrong interval does not
// stand for years.
void sleepUntilPublication();

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
