#include "shim_utils/publication/semaphores.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "shim_utils/platform/log.h"
#include "shim_utils/platform/process_memory.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

namespace {

int semaphoreCount = 0;
int* semaphores = nullptr;

// Creates a set of one semaphore with one free unit. Logs a failure and returns -1.
int createSemaphore() {
    int id = semget(IPC_PRIVATE, 1, IPC_CREAT | 0777);
    if (id < 0) {
        printErrorMsg(
            " cannot create semaphores -- you may have reached the maximum no of semaphores "
            "allowed by the OS ...! ");
        return -1;
    }
    sembuf firstUnit = {0, +1, 0};
    if (semop(id, &firstUnit, 1) != 0) {
        printErrorMsg("cannot unlock the semaphores ");
        removeSemaphore(id);
        return -1;
    }
    return id;
}

constexpr int kSecond = 1'000'000;  // times are in microseconds
constexpr int kMinute = 60 * kSecond;

// The time that this process may still wait for its record, and the time at which
// the first part of that second was used.
std::atomic<int> waitBudget{kSecond};
std::int64_t waitingSince = 0;

std::int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * kSecond + time.tv_nsec / 1000;
}

bool waitForUnit(int id, int longest) {
    timespec time = {longest / kSecond, longest % kSecond * 1000};
    return semtimedop(id, &psembuf, 1, &time) == 0;
}

bool waitWithinBudget(int id) {
    int left = waitBudget.load(std::memory_order_relaxed);
    if (left == 0) return false;
    std::int64_t start = now();
    if (left == kSecond) waitingSince = start;
    bool locked = waitForUnit(id, left);
    bool timeIsUp = !locked && errno == EAGAIN;
    std::int64_t waited = now() - start;
    left = timeIsUp || waited > left ? 0 : static_cast<int>(left - waited);
    waitBudget.store(left, std::memory_order_relaxed);
    if (timeIsUp) {
        printErrorMsg(
            "A shared record's semaphore is held for long: the counts stay in the process until it "
            "is free");
    }
    return locked;
}

void restoreWaitBudget() {
    if (waitBudget.load(std::memory_order_relaxed) == kSecond) return;
    if (now() - waitingSince >= kMinute) waitBudget.store(kSecond, std::memory_order_relaxed);
}

}  // namespace

bool createSemaphores(int count) {
    semaphores = static_cast<int*>(allocateZeroed(static_cast<std::size_t>(count) * sizeof(int)));
    if (semaphores == nullptr) {
        printErrorMsg("No memory for the semaphores' identifiers: nothing is measured");
        return false;
    }
    for (semaphoreCount = 0; semaphoreCount < count; ++semaphoreCount) {
        int id = createSemaphore();
        if (id < 0) {
            while (semaphoreCount > 0) removeSemaphore(semaphores[--semaphoreCount]);
            return false;
        }
        semaphores[semaphoreCount] = id;
    }
    return true;
}

int semaphoreOf(int i) {
    return i < semaphoreCount ? semaphores[i] : kNoSemaphore;
}

bool lockSemaphore(int id) {
    sembuf withoutWaiting = psembuf;
    withoutWaiting.sem_flg |= IPC_NOWAIT;
    if (semop(id, &withoutWaiting, 1) == 0) {
        restoreWaitBudget();
        return true;
    }
    return errno == EAGAIN && waitWithinBudget(id);
}

bool lockSemaphoreAtExit(int id) {
    constexpr int kLongest = 2 * kSecond;
    std::int64_t end = now() + kLongest;
    for (std::int64_t left = kLongest; left > 0; left = end - now()) {
        if (waitForUnit(id, static_cast<int>(left))) return true;
        if (errno != EINTR) return false;
    }
    errno = EAGAIN;
    return false;
}

bool unlockSemaphore(int id) {
    return semop(id, &vsembuf, 1) == 0;
}

bool semaphoreExists(int id) {
    return semctl(id, 0, GETVAL) >= 0;
}

bool heldByThisProcess(int id) {
    return semctl(id, 0, GETVAL) == 0 && semctl(id, 0, GETPID) == getpid();
}

int lastUserOfSemaphore(int id) {
    return semctl(id, 0, GETPID);
}

void removeSemaphore(int id) {
    semctl(id, 0, IPC_RMID);
}

}  // namespace tolvane
