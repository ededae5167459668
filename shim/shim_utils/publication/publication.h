// Publication: adds a process's counts to its shared record.
#pragma once

namespace tolvane {

// Counts a measured send call of a type 0 process and publishes after every
// requestInterval calls.
void publishEveryInterval();

// Publishes the counts of a type 0 worker under the record's semaphore, then
// copies a newer configuration if there is one. If the semaphore cannot be locked,
// the counts wait for the next publication.
void writeResult();

// Publishes every dirty slot of a threaded server, once per monitor cycle.
void publishSlots();

// Publishes the remaining counts of a type 0 worker at its exit. A further call
// publishes what was counted since.
void publishAtExit();

// For a forked child: resets the number of calls since the last publication.
void resetIntervalAfterFork();

}  // namespace tolvane
