// close and the other calls that close descriptors: tracking of a connection ends
// here. It ends before the real close, because afterwards another connection may
// get the same number.
#include <linux/close_range.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "real_calls.h"
#include "shim_utils/accounting/accounting.h"
#include "shim_utils/lifecycle/process_identity.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/slots/serving_thread.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

constinit RealCall<int(int)> real_close{"close"};
constinit RealCall<int(FILE*)> real_fclose{"fclose"};
constinit RealCall<int(int, int)> real_dup2{"dup2"};
constinit RealCall<int(int, int, int)> real_dup3{"dup3"};
constinit RealCall<int(unsigned, unsigned, int)> real_close_range{"close_range"};
constinit RealCall<void(int)> real_closefrom{"closefrom"};

namespace {

// Whether the shim keeps state for `fd` that must be reset.
bool isKnown(int fd) {
    if (httpListenSocket.contains(fd) || sslHttpListenSocket.contains(fd)) return true;
    if (localListenSocket.contains(fd)) return true;
    const DescriptorState* state = descriptorState(fd);
    return state != nullptr && (state->typeOfSocket.load(std::memory_order_relaxed) != kUntracked ||
                                state->seenHttpConnection.load(std::memory_order_relaxed) != 0);
}

void closing(int fd) {
    if (tolvaneShimEnabled.load(std::memory_order_acquire) != 1 || !isKnown(fd)) return;
    ErrnoGuard guard;
    if (!ownsMemory()) return;
    for (ListenTable* table : {&httpListenSocket, &sslHttpListenSocket, &localListenSocket}) {
        table->set(fd, false);
    }
    if (mayServe() && countClosed(fd)) publishAtClose();
}

void closingStream(FILE* stream) {
    if (tolvaneShimEnabled.load(std::memory_order_relaxed) != 1 || stream == nullptr) return;
    ErrnoGuard guard;
    closing(fileno_unlocked(stream));
}

void closingRange(unsigned firstFd, unsigned lastFd) {
    if (tolvaneShimEnabled.load(std::memory_order_relaxed) != 1) return;
    auto limit = static_cast<unsigned>(trackedLimit.load(std::memory_order_relaxed));
    for (unsigned fd = firstFd; fd <= lastFd && fd < limit; ++fd) closing(static_cast<int>(fd));
}

// Whether close_range with these flags closes the process's descriptors, and not
// only those in a table that the calling thread no longer shares.
bool closesForAll(int flags) {
    return flags == 0 || (flags == CLOSE_RANGE_UNSHARE && webServerType == kApacheProcesses);
}

// Whether the call will close the range. Old kernels and some sandboxes do not
// support it; a call with an empty range detects that.
bool willClose(RealCall<int(unsigned, unsigned, int)>::Pointer call, unsigned firstFd,
               unsigned lastFd, int flags) {
    if (tolvaneShimEnabled.load(std::memory_order_relaxed) != 1) return false;
    if (firstFd > lastFd || !closesForAll(flags)) return false;
    ErrnoGuard guard;
    return call(UINT_MAX, UINT_MAX, 0) == 0;
}

// A replaced descriptor stays in use, so the state is reset after the real call has
// succeeded.
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

TOLVANE_EXPORT int fclose(FILE* stream) {
    auto call = tolvane::real_fclose.find();
    if (call == nullptr) return EOF;
    tolvane::closingStream(stream);
    return call(stream);
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
    if (tolvane::willClose(call, firstFd, lastFd, flags)) tolvane::closingRange(firstFd, lastFd);
    return call(firstFd, lastFd, flags);
}

TOLVANE_EXPORT void closefrom(int lowest) noexcept {
    auto call = tolvane::real_closefrom.find();
    if (call == nullptr) return;
    tolvane::closingRange(lowest < 0 ? 0U : static_cast<unsigned>(lowest), UINT_MAX);
    call(lowest);
}
