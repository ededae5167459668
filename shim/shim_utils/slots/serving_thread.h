// A type 0 process serves its connections in a single thread, so its slot is not
// protected against a second thread. If a second thread serves connections, the
// server type was detected wrongly, and measurement of the process ends before
// that thread changes the slot.
#pragma once

#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// Makes `thread` the serving thread if the process has none. If the process has
// another serving thread, turns measurement off, logs it once and returns false.
bool admitThread(void* thread);

// Whether the calling thread may count in this process.
inline bool mayServe() {
    if (webServerType != kApacheProcesses) return true;
    void* self = __builtin_thread_pointer();
    return servingThread.load(std::memory_order_relaxed) == self || admitThread(self);
}

// For a forked child, whose thread is a different one.
void freeServingThread();

}  // namespace tolvane
