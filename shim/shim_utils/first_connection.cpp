#include "first_connection.h"

#include <pthread.h>
#include <unistd.h>

#include "monitor_thread.h"
#include "tolvane/shim_tables.h"

namespace tolvane {

std::atomic<bool> servesConnections{false};
std::atomic<bool> readyForConnections{false};

namespace {

// Error-checking: a signal handler that accepts a connection in the middle of
// the work of its own thread goes on without waiting.
constexpr pthread_mutex_t kUnlocked = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
pthread_mutex_t firstConnection = kUnlocked;

void makeReady() {
    servesConnections.store(true);
    bucketNumber = getpid() % numStructures;
    if (webServerType == kApacheThreads) startMonitor();
    readyForConnections.store(true, std::memory_order_release);
}

}  // namespace

void makeReadyForConnections() {
    // A thread that is cancelled here would leave the lock to nobody.
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
