#include "semaphores.h"

#include <unistd.h>

#include "log.h"

namespace tolvane {

sembuf psembuf = {0, -1, SEM_UNDO};
sembuf vsembuf = {0, +1, SEM_UNDO};

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
        return -1;
    }
    return id;
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
