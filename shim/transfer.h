// The algorithm of all receive wrappers and that of all send wrappers: check whether
// the connection is tracked, count, return the real result.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

#include "shim_utils/accounting/accounting.h"
#include "shim_utils/accounting/counting.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/slots/connection_slots.h"
#include "shim_utils/slots/serving_thread.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// The state of `fd` if it is a tracked connection for which this thread may count,
// else null.
inline DescriptorState* trackedDescriptor(int fd) {
    if (tolvaneShimEnabled.load(std::memory_order_acquire) != 1) return nullptr;
    DescriptorState* state = descriptorState(fd);
    if (state == nullptr) return nullptr;
    if (state->typeOfSocket.load(std::memory_order_relaxed) == kUntracked) return nullptr;
    return mayServe() ? state : nullptr;
}

// Smaller transfers do not reach the amount that makes a publication urgent.
inline constexpr ssize_t kOfABody = 1024;

// Counts a receive call on `fd` that returned `n` and filled `buffers`.
inline ssize_t received(int fd, ssize_t n, Buffers buffers) {
    if (n < 1) return n;
    DescriptorState* state = trackedDescriptor(fd);
    if (state == nullptr) return n;
    int slot = slotOf(webServerType, fd, *state);
    if (slot < 0) return n;
    Connection connection = {*state, slotAt(slot)};
    counting->received(connection, n, buffers);
    if (!connection.plain()) lastSslDescriptor = fd;
    if (n >= kOfABody) publishIfUrgent();
    return n;
}
inline ssize_t received(int fd, ssize_t n, const void* data, std::size_t size) {
    const iovec buffer = {const_cast<void*>(data), size};
    return received(fd, n, Buffers{&buffer, 1});
}

// Counts a send call of `buffers` on `fd` that returned `n`, also an error. A type 0
// process publishes here.
inline ssize_t sent(int fd, ssize_t n, Buffers buffers) {
    DescriptorState* state = trackedDescriptor(fd);
    if (state == nullptr) return n;
    int slot = slotOf(webServerType, fd, *state);
    if (slot < 0) return n;
    Connection connection = {*state, slotAt(slot)};
    counting->sent(connection, n, buffers);
    if (webServerType == kApacheProcesses && connection.plain()) {
        publishEveryInterval();
        if (n >= kOfABody) publishIfUrgent();
    }
    return n;
}
inline ssize_t sent(int fd, ssize_t n, const void* data, std::size_t size) {
    const iovec buffer = {const_cast<void*>(data), size};
    return sent(fd, n, Buffers{&buffer, 1});
}

}  // namespace tolvane
