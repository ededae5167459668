#include "os/system_limits.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace tolvane::agent {

namespace {

std::uint64_t nonNegative(int value) {
    return value > 0 ? static_cast<std::uint64_t>(value) : 0;
}

}  // namespace

std::optional<SystemLimits> readSystemLimits() {
    shminfo segmentLimits{};
    shm_info segmentUse{};
    seminfo semaphoreLimits{};
    seminfo semaphoreUse{};
    // The calls fill other structures than their parameter types declare.
    if (::shmctl(0, IPC_INFO, reinterpret_cast<shmid_ds*>(&segmentLimits)) < 0 ||
        ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&segmentUse)) < 0 ||
        ::semctl(0, 0, IPC_INFO, SemaphoreArgument{.limits = &semaphoreLimits}) < 0 ||
        ::semctl(0, 0, SEM_INFO, SemaphoreArgument{.limits = &semaphoreUse}) < 0) {
        return std::nullopt;
    }
    return SystemLimits{segmentLimits.shmmax,
                        segmentLimits.shmmni,
                        nonNegative(segmentUse.used_ids),
                        nonNegative(semaphoreLimits.semmni),
                        nonNegative(semaphoreUse.semusz),
                        nonNegative(semaphoreLimits.semmns),
                        nonNegative(semaphoreUse.semaem)};
}

}  // namespace tolvane::agent
