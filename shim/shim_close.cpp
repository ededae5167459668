// close, and the calls that close descriptors besides: where a connection
// leaves the shim's view. It does so before the descriptor is really closed,
// so that its number cannot belong to another connection in between.
#include <linux/close_range.h>
#include <unistd.h>

#include <climits>

#include "real_calls.h"
#include "shim_utils/accounting.h"
#include "shim_utils/errno_guard.h"
#include "tolvane/entry_points.h"
#include "tolvane/shim_tables.h"

namespace tolvane {

constinit RealCall<int(int)> real_close{"close"};
constinit RealCall<int(int, int)> real_dup2{"dup2"};
constinit RealCall<int(int, int, int)> real_dup3{"dup3"};
constinit RealCall<int(unsigned, unsigned, int)> real_close_range{"close_range"};
constinit RealCall<void(int)> real_closefrom{"closefrom"};

namespace {

void closing(int fd) {
    if (tolvaneShimEnabled.load(std::memory_order_acquire) != 1) return;
    ErrnoGuard guard;
    countClosed(fd);
}

void closingRange(unsigned firstFd, unsigned lastFd) {
    if (tolvaneShimEnabled.load(std::memory_order_relaxed) != 1) return;
    auto limit = static_cast<unsigned>(trackedLimit.load(std::memory_order_relaxed));
    for (unsigned fd = firstFd; fd <= lastFd && fd < limit; ++fd) closing(static_cast<int>(fd));
}

// Whether close_range with these flags closes descriptors, and not just those of
// a thread that parts with its siblings' table.
bool closesForAll(int flags) {
    return flags == 0 || (flags == CLOSE_RANGE_UNSHARE && webServerType == kApacheProcesses);
}

// A descriptor replaced by a duplicate stays in use, so here it can wait until
// the real call has succeeded.
int replaced(int oldFd, int newFd, int result) {
    if (result >= 0 && oldFd != newFd) closing(newFd);
    return result;
}

}  // namespace
}  // namespace tolvane

TOLVANE_EXPORT int close(int fd) {
    tolvane::closing(fd);
    auto call = tolvane::real_close.find();
    return call == nullptr ? -1 : call(fd);
}

TOLVANE_EXPORT int dup2(int oldFd, int newFd) noexcept {
    auto call = tolvane::real_dup2.find();
    return call == nullptr ? -1 : tolvane::replaced(oldFd, newFd, call(oldFd, newFd));
}

TOLVANE_EXPORT int dup3(int oldFd, int newFd, int flags) noexcept {
    auto call = tolvane::real_dup3.find();
    return call == nullptr ? -1 : tolvane::replaced(oldFd, newFd, call(oldFd, newFd, flags));
}

TOLVANE_EXPORT int close_range(unsigned firstFd, unsigned lastFd, int flags) noexcept {
    auto call = tolvane::real_close_range.find();
    if (call == nullptr) return -1;
    if (tolvane::closesForAll(flags)) tolvane::closingRange(firstFd, lastFd);
    return call(firstFd, lastFd, flags);
}

TOLVANE_EXPORT void closefrom(int lowest) noexcept {
    auto call = tolvane::real_closefrom.find();
    if (call == nullptr) return;
    tolvane::closingRange(lowest < 0 ? 0U : static_cast<unsigned>(lowest), UINT_MAX);
    call(lowest);
}
