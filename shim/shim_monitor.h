// The monitor thread of a threaded server, the clean-up at exit, and the lock file
// that serialises the removal of segments.
#pragma once

namespace tolvane {

// Copies the segment's configuration, if there is one, and starts the thread. The
// thread blocks every signal, so that the server's threads receive them. A failure
// is logged.
void startMonitor();

// Sleeps for the interval of the configuration in force. Returns earlier in two
// cases: no configuration is in force and the agent writes one; or the interval is
// longer than an hour, and a newer configuration has existed for its own interval, or
// cannot exist because the version is the highest. The second case limits the effect
// of a wrong interval. When messages are counted, it also returns within a second for
// any newer configuration and for an urgent publication.
void sleepUntilPublication();

// In the server's parent: removes the semaphores, the segment and the handoff
// file. In a type 0 worker, and when messages are counted also in a type 3 worker:
// publishes its last counts, once. Elsewhere, and
// with measurement off: nothing.
void cleanup();

// Registers cleanup to run at exit.
void cleanUpAtExit();

// Creates the lock file that serialises removals with every other server. Returns
// true if it was created, and also if it cannot be created at all; false if another
// process has held it for ten seconds.
bool wa_lock();

void wa_unlock();

}  // namespace tolvane
