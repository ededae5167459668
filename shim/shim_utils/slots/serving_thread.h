// A type 0 process serves its connections in a single thread, so its slot has
// no protection against a second one. When a second thread serves connections
// all the same, the server was taken for the wrong type: measurement of the
// process ends before that thread has touched anything.
#pragma once

#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// Makes `thread` the serving thread if there is none. Otherwise switches
// measurement off, logs it once, and returns false.
bool admitThread(void* thread);

// Whether the calling thread may count in this process.
inline bool mayServe() {
    if (webServerType != kApacheProcesses) return true;
    void* self = __builtin_thread_pointer();
    return servingThread.load(std::memory_order_relaxed) == self || admitThread(self);
}

// In a forked child: it has a thread of its own.
void freeServingThread();

}  // namespace tolvane
