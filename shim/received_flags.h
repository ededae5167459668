// Receive calls with flags.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include "transfer.h"

namespace tolvane {

// Peeked bytes are received again later, and an error report is not data; neither
// is counted. Bytes that the call discarded (MSG_TRUNC) are counted but cannot be
// examined.
inline ssize_t receivedWithFlags(int fd, ssize_t n, Buffers buffers, int flags) {
    if ((flags & (MSG_PEEK | MSG_ERRQUEUE)) != 0) return n;
    return received(fd, n, (flags & MSG_TRUNC) != 0 ? Buffers{} : buffers);
}
inline ssize_t receivedWithFlags(int fd, ssize_t n, void* data, std::size_t size, int flags) {
    const iovec buffer = {data, size};
    return receivedWithFlags(fd, n, Buffers{&buffer, 1}, flags);
}

}  // namespace tolvane
