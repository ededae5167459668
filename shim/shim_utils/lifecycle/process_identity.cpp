#include "shim_utils/lifecycle/process_identity.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>

#include "shim_monitor.h"
#include "shim_utils/lifecycle/first_connection.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/own_files.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/publication/semaphores.h"
#include "shim_utils/slots/connection_slots.h"
#include "shim_utils/slots/serving_thread.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

namespace {

// The role that the process has found for itself. A forked child inherits only the
// fact that its parent is the server's parent.
enum class Role { kUnknown, kParent, kChildOfParent };
std::atomic<Role> role{Role::kUnknown};

std::int32_t publishedParent() {
    return std::atomic_ref<std::int32_t>(shmConfig->parentPid).load(std::memory_order_acquire);
}

// Sets the role if the server's pid file names this process. Returns the id in it.
int lookWhetherParent() {
    int pid = getParentPid();
    if (pid == getpid()) role.store(Role::kParent, std::memory_order_relaxed);
    return pid;
}

// The server may have written its pid file by this time. Processes that serve
// connections discover the parent in their accept calls.
void beforeFork() {
    if (tolvaneShimEnabled.load(std::memory_order_relaxed) == 0 || webServerType == kNetscape ||
        servesConnections.load(std::memory_order_relaxed) ||
        role.load(std::memory_order_relaxed) == Role::kParent) {
        return;
    }
    ErrnoGuard guard;
    lookWhetherParent();
}

// Whether a process other than their creator has used the semaphores. This shows
// that workers existed, and writing to the segment cannot hide it.
bool semaphoresWereUsed() {
    for (int i = 0; i < numStructures; ++i) {
        if (lastUserOfSemaphore(semaphoreOf(i)) != listenPid) return true;
    }
    return false;
}

// A serving process of a threaded server forks only to execute another program.
// Only the child of a process that serves no connections is a new worker.
bool childGoesOnMeasuring() {
    return webServerType == kApacheProcesses ||
           (webServerType == kApacheThreads && !servesConnections.load(std::memory_order_relaxed));
}

void inForkedChild() {
    ++processGeneration;
    memoryPid.store(getpid(), std::memory_order_relaxed);
    freeServingThread();
    if (role.load(std::memory_order_relaxed) == Role::kParent) role.store(Role::kChildOfParent);
    freeSlotLockAfterFork();
    freeFirstConnectionLockAfterFork();
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
    return pthread_atfork(beforeFork, nullptr, inForkedChild) == 0;
}

bool ownsMemory() {
    int owner = memoryPid.load(std::memory_order_relaxed);
    return owner == 0 || owner == getpid();
}

// Uses bare system calls, because it runs inside accept: no stream, no allocation.
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
    if (parentPid.load(std::memory_order_relaxed) >= 0) return;
    std::int32_t known = publishedParent();
    if (known < 0) {
        int pid = lookWhetherParent();
        std::atomic_ref<std::int32_t> shared(shmConfig->parentPid);
        bool first = pid >= 0 && shared.compare_exchange_strong(known, pid);
        if (first && getpid() != listenPid) unlockSemaphores();
        known = shared.load(std::memory_order_acquire);
    } else if (known == getpid()) {
        lookWhetherParent();  // every user can write that id
    }
    if (known >= 0) parentPid.store(known, std::memory_order_relaxed);
}

bool parentIsKnown() {
    return parentPid.load(std::memory_order_relaxed) >= 0 || publishedParent() >= 0;
}

bool isServersParent() {
    int self = getpid();
    if (webServerType == kNetscape) return parentPid.load(std::memory_order_relaxed) == self;
    int inFile = lookWhetherParent();
    std::int32_t known = publishedParent();
    bool published = known == self;
    if (role.load(std::memory_order_relaxed) == Role::kParent) {
        bool learned = known != kUnknownPid || parentIsKnown() || semaphoresWereUsed();
        return published || (learned && (inFile == self || inFile == kUnknownPid));
    }
    // The segment decides if nothing contradicts it.
    return published && role.load(std::memory_order_relaxed) == Role::kUnknown &&
           inFile == kUnknownPid && !servesConnections.load(std::memory_order_relaxed);
}

}  // namespace tolvane
