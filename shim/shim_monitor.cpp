// The monitor thread, the clean-up at exit, and the lock file.
#include "shim_monitor.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "shim_utils/configuration/configuration.h"
#include "shim_utils/lifecycle/process_identity.h"
#include "shim_utils/lifecycle/run_files.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/own_files.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/publication/semaphores.h"
#include "shim_utils/slots/connection_slots.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

pthread_t tid;

void sleepFor(int seconds) {
    timespec left = {seconds, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

constexpr std::int32_t kLongInterval = 3600;

std::int32_t intervalOrDefault(std::int32_t interval) {
    return interval > 0 ? interval : kDefaultInterval;
}

// The longest time that a newer configuration waits for the end of a long sleep.
std::int32_t newerInterval() {
    std::int32_t interval = intervalOrDefault(segmentInterval());
    return interval > kLongInterval ? kDefaultInterval : interval;
}

void sleepUntil(const timespec& time) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

// The copy that is overwritten was replaced at least one sleep ago. Only a thread
// whose SlotWork began before that can still read it.
void copyNewerConfiguration() {
    static bool waiting = false;
    if (!newerConfigurationExists()) return;
    if (waitForSlotsAtWork()) {
        waiting = false;
        copyConfiguration();
    } else if (!waiting) {
        waiting = true;
        printErrorMsg("A new configuration waits for a request that has not been matched for long");
    }
}

void* monitor(void*) {
    if (webServerType == kApacheProcesses) {
        printErrorMsg("Apache not supported in monitor()!");
        return nullptr;
    }
    if (webServerType != kNetscape && webServerType != kApacheThreads) {
        printErrorMsg("This Web server type not supported ");
        return nullptr;
    }
    for (;;) {
        publishSlots();
        sleepUntilPublication();
        copyNewerConfiguration();
    }
}

void removeSemaphores(bool announce) {
    for (int i = 0; i < numStructures; ++i) {
        if (announce) printErrorMsg("REMOVING SEMAPHORE");
        removeSemaphore(semaphoreOf(i));
    }
}

void removeSegment() {
    std::atomic_ref<std::int32_t>(shmConfig->version).store(kVersionRemoved);
    shmctl(shmid, IPC_RMID, nullptr);
    deleteHandoffFile();
    wa_unlock();
}

void cleanUpParent() {
    bool announce = webServerType == kApacheProcesses;
    if (announce) printErrorMsg("IN EQUALS CASE!!!");
    removeSemaphores(announce);
    if (!wa_lock()) return;
    if (announce) printErrorMsg("AFTER LOCK!");
    removeSegment();
}

}  // namespace

void sleepUntilPublication() {
    const ConfigInfo& config = configInfo().info;
    std::int32_t interval = intervalOrDefault(config.interval);
    std::int32_t newerFor = 0;  // seconds
    timespec wake;
    clock_gettime(CLOCK_MONOTONIC, &wake);
    for (std::int32_t slept = 0; slept < interval; ++slept) {
        ++wake.tv_sec;
        sleepUntil(wake);
        if (publicationIsUrgent()) return;
        bool newer = newerConfigurationExists();
        if (newer && (config.version == 0 || countsMessages)) return;
        // No version is newer than the highest. Its interval may be wrong as well.
        newerFor = newer || config.version == INT32_MAX ? newerFor + 1 : 0;
        if (newerFor == 0) continue;
        if (interval > kLongInterval && newerFor >= newerInterval()) return;
    }
}

void startMonitor() {
    // Not in the monitor thread, so that the first requests are matched, too.
    copyConfiguration();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int failure = pthread_create(&tid, nullptr, monitor, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failure != 0) {
        printErrorMsg("The monitor thread cannot be started: nothing of this process is published");
    }
}

bool wa_lock() {
    constexpr int kTries = 10;
    for (int i = 0; i < kTries; ++i) {
        int fd = openOwn(kLockFile, O_WRONLY | O_CREAT | O_EXCL);
        if (fd >= 0) closeOwn(fd);
        if (fd >= 0 || errno != EEXIST) return true;
        sleepFor(1);
    }
    return false;
}

void wa_unlock() {
    unlink(kLockFile);
}

void cleanup() {
    if (tolvaneShimEnabled.load(std::memory_order_relaxed) == 0) return;
    if (isServersParent()) {
        cleanUpParent();
    } else if (webServerType == kApacheProcesses && parentIsKnown()) {
        publishAtExit();
    } else if (webServerType == kApacheThreads && readyForConnections.load()) {
        publishSlotsAtExit();
    }
}

void cleanUpAtExit() {
    if (std::atexit(cleanup) != 0) {
        printErrorMsg("No memory to clean up at exit: the next start of the server will do it");
    }
}

}  // namespace tolvane
