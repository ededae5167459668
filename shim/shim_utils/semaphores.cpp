#include "semaphores.h"

#include <unistd.h>

#include "log.h"
#include "process_memory.h"
#include "tolvane/segment_format.h"

namespace tolvane {

sembuf psembuf = {0, -1, SEM_UNDO};
sembuf vsembuf = {0, +1, SEM_UNDO};

namespace {

int semaphoreCount = 0;
int* semaphores = nullptr;

// A set of one semaphore with one free unit; -1 after logging what failed.
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
    return semop(id, &psembuf, 1) == 0;
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

void removeSemaphore(int id) {
    semctl(id, 0, IPC_RMID);
}

}  // namespace tolvane
