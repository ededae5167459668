// The semaphore of a shared record, under which processes publish.
#pragma once

#include <chrono>
#include <cstdint>

#include "segment/segment.h"

namespace tolvane::agent {

// A server creates its semaphores right after its segment, as the same user, in
// sets of one, with mode 0777. Any other semaphore is not the server's own: any
// process can write identifiers into a segment, and the identifiers in an old
// segment may have been reused.
bool isSemaphoreOf(std::int32_t semaphoreId, const SegmentStatus& segment);

enum class LockedCopy {
    kDone,
    kBusy,  // a process held the lock during the entire patience
    kGone,  // the semaphore no longer exists
};

// Copies the record while holding its semaphore, which the system releases if
// this process is killed. `held` is the time for which the lock was held.
LockedCopy copyUnderLock(const Segment& segment, std::int32_t record, std::int32_t semaphoreId,
                         std::chrono::microseconds patience, ResultStruct& copy,
                         std::chrono::nanoseconds& held);

// The kernel keeps an undo entry for every semaphore that was locked, and searches
// all of them at each lock. With many servers that is the largest cost. No lock
// may be held when the entries are dropped.
void dropUndoEntries();

}  // namespace tolvane::agent
