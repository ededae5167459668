#include "segment/record_lock.h"

#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <ctime>

#include "os/system_limits.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;

// Locks (-1) or unlocks (+1) the semaphore. Returns errno, 0 on success.
int change(std::int32_t semaphoreId, short units, std::chrono::microseconds patience) {
    sembuf operation = {0, units, SEM_UNDO};
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience);
    timespec limit = {seconds.count(), static_cast<long>((patience - seconds).count()) * 1000};
    auto deadline = Clock::now() + patience;
    while (::semtimedop(semaphoreId, &operation, 1, &limit) != 0) {
        if (errno != EINTR || Clock::now() > deadline) return errno;
    }
    return 0;
}

}  // namespace

bool isSemaphoreOf(std::int32_t semaphoreId, const SegmentStatus& segment) {
    constexpr std::time_t kStartUp = 2;  // seconds
    semid_ds status{};
    if (semaphoreId < 0 ||
        ::semctl(semaphoreId, 0, IPC_STAT, SemaphoreArgument{.status = &status}) < 0) {
        return false;
    }
    return status.sem_nsems == 1 && (status.sem_perm.mode & 0777) == 0777 &&
           status.sem_perm.cuid == segment.owner && status.sem_ctime >= segment.created &&
           status.sem_ctime <= segment.created + kStartUp;
}

LockedCopy copyUnderLock(const Segment& segment, std::int32_t record, std::int32_t semaphoreId,
                         std::chrono::microseconds patience, ResultStruct& copy,
                         std::chrono::nanoseconds& held) {
    // Allocates its pages before the lock is held.
    copy = {};
    int error = change(semaphoreId, -1, patience);
    if (error == EAGAIN || error == EINTR) return LockedCopy::kBusy;
    if (error != 0) return LockedCopy::kGone;
    auto taken = Clock::now();
    segment.copyRecordNow(record, copy);
    change(semaphoreId, 1, patience);
    held = Clock::now() - taken;
    return LockedCopy::kDone;
}

void dropUndoEntries() {
    ::unshare(CLONE_SYSVSEM);
}

}  // namespace tolvane::agent
