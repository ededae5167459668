// readv, and recvmsg, which also fills a vector. Only the vector's first entry is
// examined.
#include <sys/socket.h>
#include <sys/uio.h>

#include "real_calls.h"
#include "received_flags.h"
#include "tolvane/entry_points.h"

namespace tolvane {

constinit RealCall<ssize_t(int, const iovec*, int)> real_readv{
    "readv", "READV  system call  FAILED ... oops !!"};
constinit RealCall<RecvmsgCall> real_recvmsg{"recvmsg"};
#ifndef __LP64__
constinit RealCall<RecvmsgCall> real_recvmsg64{"__recvmsg64"};
#endif

namespace {

ssize_t receiveMessage(RecvmsgCall* call, int fd, msghdr* message, int flags) {
    if (call == nullptr) return -1;
    ssize_t n = call(fd, message, flags);
    if (n < 1) return n;
    return receivedWithFlags(fd, n, Buffers{message->msg_iov, message->msg_iovlen}, flags);
}

}  // namespace

}  // namespace tolvane

using namespace tolvane;

TOLVANE_EXPORT ssize_t readv(int fd, const iovec* vector, int entries) {
    auto call = real_readv.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, vector, entries);
    if (n < 1) return n;
    return received(fd, n, Buffers{vector, static_cast<size_t>(entries)});
}

TOLVANE_EXPORT ssize_t recvmsg(int fd, msghdr* message, int flags) {
    return receiveMessage(real_recvmsg.find(), fd, message, flags);
}

#ifndef __LP64__
TOLVANE_EXPORT ssize_t __recvmsg64(int fd, msghdr* message, int flags) {
    return receiveMessage(real_recvmsg64.find(), fd, message, flags);
}
#endif
