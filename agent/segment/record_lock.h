// The semaphore of a shared record, under which processes publish.
#pragma once

#include <chrono>
#include <cstdint>

#include "segment/segment.h"

namespace tolvane::agent {

// A server creates its semaphores right after its segment, as the same user,
// one to a set and open to everybody. Whatever does not look so was not its
// own: anybody may write identifiers into a segment, and those in an old one
// may have been given to somebody else since.
bool isSemaphoreOf(std::int32_t semaphoreId, const SegmentStatus& segment);

enum class LockedCopy {
    kDone,
    kBusy,  // a process held the lock all the time that we may wait
    kGone,  // there is no such semaphore any more
};

// Copies the record while holding its semaphore, which the system gives back
// should we be killed. `held` is how long that took.
LockedCopy copyUnderLock(const Segment& segment, std::int32_t record, std::int32_t semaphoreId,
                         std::chrono::microseconds patience, ResultStruct& copy,
                         std::chrono::nanoseconds& held);

// The system keeps a note of every semaphore that was taken and looks through
// all of them at each taking. With many servers that costs more than all else;
// no lock may be held when the notes are dropped.
void dropLockNotes();

}  // namespace tolvane::agent
