// The semaphore of a shared record. It has exactly one free unit while no process
// holds the lock. This remains true when a process is killed, because lock and
// unlock use the undo flag and the creation of the unit does not.
#pragma once

#include <sys/sem.h>

#include <cstdint>

namespace tolvane {

// Creates the semaphores of `count` records, each with one free unit. On failure,
// logs it, removes the semaphores created so far and returns false.
bool createSemaphores(int count);

// The semaphore of record `i`; kNoSemaphore before createSemaphores. Read from the
// process's own memory, because every user can write to the segment.
int semaphoreOf(int i);

// Locks the semaphore; false on failure. Any user can hold a semaphore forever, so
// the process waits for one second in total. After that it only tries without
// waiting, until it succeeds and at least a minute has passed since it first
// waited. A wait that a signal interrupts fails.
bool lockSemaphore(int id);

// Locks the semaphore. Waits for two seconds at most, and resumes after signals.
bool lockSemaphoreAtExit(int id);

// Unlocks the semaphore; false on failure.
bool unlockSemaphore(int id);

// Whether the set still exists.
bool semaphoreExists(int id);

// Whether this process holds the lock. True in a signal handler that interrupts a
// publication of its own process.
bool heldByThisProcess(int id);

// The process that last changed the semaphore; -1 if it does not exist.
int lastUserOfSemaphore(int id);

// Removes the set; failures are ignored.
void removeSemaphore(int id);

}  // namespace tolvane
