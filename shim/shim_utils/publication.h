// Handing a process's counts on to its shared record.
#pragma once

namespace tolvane {

// Counts one measured send call of a type 0 process, and publishes when there
// have been requestInterval of them.
void publishEveryInterval();

// Publication of a type 0 worker: its counts under the record's semaphore,
// then a newer configuration if there is one. Without the semaphore nothing is
// handed on, and the counts stay for the next publication.
void writeResult();

// One cycle of a threaded server's monitor: every slot that is not clean.
void publishSlots();

// Publication of what a type 0 worker has counted since the last one, at its
// exit. Called again, it hands on what has been counted meanwhile.
void publishAtExit();

// In a forked child: nothing has been counted towards the interval yet.
void resetIntervalAfterFork();

}  // namespace tolvane
