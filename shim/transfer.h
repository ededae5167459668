// The algorithm of all receive wrappers and that of all send wrappers: check whether
// the connection is tracked, count, return the real result.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include "shim_utils/accounting/accounting.h"
#include "shim_utils/platform/text.h"
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

// The part of a transfer of `n` bytes that is in a buffer of `size` bytes.
inline Bytes transferredText(const void* buffer, std::size_t size, ssize_t n) {
    if (buffer == nullptr || n < 1) return {};
    auto length = static_cast<std::size_t>(n);
    return {static_cast<const char*>(buffer), length < size ? length : size};
}

// The same for a vector. Only its first entry is examined.
inline Bytes transferredText(const iovec* vector, std::size_t entries, ssize_t n) {
    if (vector == nullptr || entries == 0) return {};
    return transferredText(vector[0].iov_base, vector[0].iov_len, n);
}

// Counts a receive call on `fd` that returned `n`. `text` may be examined.
inline ssize_t received(int fd, ssize_t n, Bytes text) {
    if (n < 1) return n;
    DescriptorState* state = trackedDescriptor(fd);
    if (state == nullptr) return n;
    int slot = slotOf(webServerType, fd, *state);
    if (slot >= 0) countReceived({*state, slotAt(slot)}, n, text);
    return n;
}

// Counts a send call on `fd` that returned `n`, also an error. A type 0 process
// publishes here.
inline ssize_t sent(int fd, ssize_t n, Bytes text) {
    DescriptorState* state = trackedDescriptor(fd);
    if (state == nullptr) return n;
    int slot = slotOf(webServerType, fd, *state);
    if (slot < 0) return n;
    Connection connection = {*state, slotAt(slot)};
    countSent(connection, n, text);
    if (webServerType == kApacheProcesses && connection.plain()) publishEveryInterval();
    return n;
}

}  // namespace tolvane
