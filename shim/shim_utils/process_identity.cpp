#include "process_identity.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>

#include "log.h"
#include "own_files.h"
#include "publication.h"
#include "semaphores.h"
#include "serving_thread.h"
#include "shutdown.h"
#include "tolvane/connection_slots.h"
#include "tolvane/shim_tables.h"

namespace tolvane {

char pidFile[kPathSize];
int listenPid = kUnknownPid;
std::atomic<int> parentPid{kUnknownPid};
std::uint8_t processGeneration = 0;
std::atomic<int> memoryPid{0};
std::atomic<bool> servesConnections{false};

namespace {

// A threaded server forks from a serving process only to execute something
// else; only the child of a process that serves nothing yet is a new worker.
bool childGoesOnMeasuring() {
    return webServerType == kApacheProcesses ||
           (webServerType == kApacheThreads && !servesConnections.load(std::memory_order_relaxed));
}

void inForkedChild() {
    ++processGeneration;
    memoryPid.store(getpid(), std::memory_order_relaxed);
    freeServingThread();
    freeSlotLockAfterFork();
    if (childGoesOnMeasuring()) {
        clearSlotsAfterFork();
        resetIntervalAfterFork();
    } else {
        tolvaneShimEnabled.store(0, std::memory_order_relaxed);
    }
}

}  // namespace

bool watchForks() {
    memoryPid.store(getpid(), std::memory_order_relaxed);
    return pthread_atfork(nullptr, nullptr, inForkedChild) == 0;
}

bool ownsMemory() {
    int owner = memoryPid.load(std::memory_order_relaxed);
    return owner == 0 || owner == getpid();
}

// Runs inside accept, hence the bare calls: no stream, no allocation.
int getParentPid() {
    int fd = openOwn(pidFile, O_RDONLY | O_NONBLOCK);
    if (fd < 0) return kUnknownPid;
    char text[64];
    long length = syscall(SYS_read, fd, text, sizeof text - 1);
    closeOwn(fd);
    if (length <= 0) return kUnknownPid;
    text[length] = '\0';

    char* end;
    long pid = std::strtol(text, &end, 10);
    return end == text || pid < INT_MIN || pid > INT_MAX ? kUnknownPid : static_cast<int>(pid);
}

void unlockSemaphores() {
    for (int i = 0; i < numStructures; ++i) {
        if (semaphoreExists(semaphoreOf(i))) continue;
        printErrorMsg("cannot unlock the semaphores ");
        shmctl(shmid, IPC_RMID, nullptr);
        cleanup();
        return;
    }
}

void discoverParent() {
    if (parentPid.load(std::memory_order_relaxed) != kUnknownPid) return;
    std::atomic_ref<std::int32_t> shared(shmConfig->parentPid);
    std::int32_t known = shared.load(std::memory_order_acquire);
    if (known == kUnknownPid) {
        int pid = getParentPid();
        bool first = pid != kUnknownPid && shared.compare_exchange_strong(known, pid);
        if (first && getpid() != listenPid) unlockSemaphores();
        known = shared.load(std::memory_order_acquire);
    }
    parentPid.store(known, std::memory_order_relaxed);
}

}  // namespace tolvane
