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

// Publishes what a type 0 worker counted for a connection that is being closed. Acts
// only when messages are counted, like the next two.
void publishAtClose();

// Publishes the last counts of a type 3 worker at its exit. The monitor publishes
// nothing afterwards. Waits for the monitor two seconds at most.
void publishSlotsAtExit();

// Whether a slot has counted so many bytes since the last publication that a
// counter could wrap before the next one.
bool publicationIsUrgent();
// Publishes a type 0 process whose publication is urgent.
void publishIfUrgent();

// For a forked child: resets the number of calls since the last publication.
void resetIntervalAfterFork();

}  // namespace tolvane
