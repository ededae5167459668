#include "shim_utils/slots/serving_thread.h"

#include <unistd.h>

#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/text.h"
#include "tolvane/paths.h"

namespace tolvane {

bool admitThread(void* thread) {
    void* serving = nullptr;
    if (servingThread.compare_exchange_strong(serving, thread)) return true;
    if (serving == thread) return true;
    if (tolvaneShimEnabled.exchange(0) == 0) return false;
    ErrnoGuard guard;
    Text<256> message;
    message.add("This server has threads but was taken for one connection per process: process ");
    message.add(getpid()).add(" measures nothing more; ").add(kApacheModuleFile);
    message.add(" must name its module");
    printErrorMsg(message.text());
    return false;
}

void freeServingThread() {
    servingThread.store(nullptr, std::memory_order_relaxed);
}

}  // namespace tolvane
