#include "shim_utils/lifecycle/first_connection.h"

#include <pthread.h>
#include <unistd.h>

#include "shim_monitor.h"
#include "shim_utils/configuration/configuration.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

namespace {

// Error-checking: a signal handler that interrupts makeReadyForConnections and
// accepts a connection must not wait for its own thread.
constexpr pthread_mutex_t kUnlocked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
pthread_mutex_t firstConnection = kUnlocked;

void makeReady() {
    servesConnections.store(true);
    bucketNumber = getpid() % numStructures;
    if (webServerType == kApacheThreads) {
        startMonitor();
    } else if (countsMessages) {
        copyConfiguration();
    }
    readyForConnections.store(true, std::memory_order_release);
}

}  // namespace

void makeReadyForConnections() {
    // A thread cancelled here would never unlock the mutex.
    int cancelState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    if (pthread_mutex_lock(&firstConnection) == 0) {
        if (!readyForConnections.load(std::memory_order_relaxed)) makeReady();
        pthread_mutex_unlock(&firstConnection);
    }
    pthread_setcancelstate(cancelState, nullptr);
}

void freeFirstConnectionLockAfterFork() {
    firstConnection = kUnlocked;
}

}  // namespace tolvane
