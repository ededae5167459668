// What the flags of a receive call say about the bytes that it returned.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include "transfer.h"

namespace tolvane {

// A receive call with flags: bytes that were only peeked at come again, and
// an error report is no data; neither is counted. Bytes that were dropped
// unread are counted, but there is nothing to look at.
inline ssize_t receivedWithFlags(int fd, ssize_t n, Bytes text, int flags) {
    if ((flags & (MSG_PEEK | MSG_ERRQUEUE)) != 0) return n;
    return received(fd, n, (flags & MSG_TRUNC) != 0 ? Bytes{} : text);
}

}  // namespace tolvane
