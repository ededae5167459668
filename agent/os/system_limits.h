// The kernel's limits on System V segments and semaphores, and what is in use.
#pragma once

#include <cstdint>
#include <optional>

struct semid_ds;
struct seminfo;

namespace tolvane::agent {

// The fourth argument of semctl is a union that the caller declares.
union SemaphoreArgument {
    int value;
    semid_ds* status;
    seminfo* limits;
};

struct SystemLimits {
    std::uint64_t maxSegmentBytes;
    std::uint64_t maxSegments;
    std::uint64_t usedSegments;
    std::uint64_t maxSemaphoreSets;
    std::uint64_t usedSemaphoreSets;
    std::uint64_t maxSemaphores;
    std::uint64_t usedSemaphores;
};

std::optional<SystemLimits> readSystemLimits();

}  // namespace tolvane::agent
