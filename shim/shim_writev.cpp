// writev, and sendmsg, which also sends a vector. Only the vector's first entry is
// examined.
#include <sys/socket.h>
#include <sys/uio.h>

#include "real_calls.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane {

constinit RealCall<ssize_t(int, const iovec*, int)> real_writev{
    "writev", "WRITEV  system call  FAILED ... oops !!"};
constinit RealCall<SendmsgCall> real_sendmsg{"sendmsg"};
#ifndef __LP64__
constinit RealCall<SendmsgCall> real_sendmsg64{"__sendmsg64"};
#endif

namespace {

ssize_t sendMessage(SendmsgCall* call, int fd, const msghdr* message, int flags) {
    if (call == nullptr) return -1;
    ssize_t n = call(fd, message, flags);
    if (n < 1) return sent(fd, n, Buffers{});
    return sent(fd, n, Buffers{message->msg_iov, message->msg_iovlen});
}

}  // namespace

}  // namespace tolvane

using namespace tolvane;

TOLVANE_EXPORT ssize_t writev(int fd, const iovec* vector, int entries) {
    auto call = real_writev.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, vector, entries);
    if (n < 1) return sent(fd, n, Buffers{});
    return sent(fd, n, Buffers{vector, static_cast<size_t>(entries)});
}

TOLVANE_EXPORT ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    return sendMessage(real_sendmsg.find(), fd, message, flags);
}

#ifndef __LP64__
TOLVANE_EXPORT ssize_t __sendmsg64(int fd, const msghdr* message, int flags) {
    return sendMessage(real_sendmsg64.find(), fd, message, flags);
}
#endif
