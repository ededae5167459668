// The semaphore of a shared record. Exactly one unit of it is free while
// nobody holds the record, whichever processes end and however they do: the
// unit made at start-up carries no undo, and locking and unlocking carry it.
#pragma once

#include <sys/sem.h>

#include <cstdint>

namespace tolvane {

extern sembuf psembuf;  // takes the unit
extern sembuf vsembuf;  // gives it back

// Creates the semaphores of `count` records, each with one free unit. False
// after logging what failed and removing those made by then.
bool createSemaphores(int count);

// The semaphore of record `i`; kNoSemaphore before createSemaphores. Kept in the
// process: what stands in the segment is for the agent, and anybody can write
// there.
int semaphoreOf(int i);

// Takes the unit; false when that fails. Anybody can hold a semaphore for ever,
// so the process waits a second in all and then only tries, until it has got
// the unit again. It waits no more than a second in a minute. A wait that a
// signal interrupts is a failure.
bool lockSemaphore(int id);

// Takes the unit, waiting for two seconds at most, across signals.
bool lockSemaphoreAtExit(int id);

// Gives the unit back; false when that fails.
bool unlockSemaphore(int id);

// Whether the set still exists.
bool semaphoreExists(int id);

// Whether this process took the unit last and has not given it back: true in a
// signal handler that interrupts a publication of its own process.
bool heldByThisProcess(int id);

// The process that last changed the semaphore; -1 when it does not exist.
int lastUserOfSemaphore(int id);

// Removes the set; failures are ignored.
void removeSemaphore(int id);

}  // namespace tolvane
