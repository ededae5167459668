// send, sendto, and sendfile, whose bytes do not pass through the process and so
// cannot be examined.
#include <sys/socket.h>

#include "real_calls.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane {

constinit RealCall<ssize_t(int, const void*, size_t, int)> real_send{
    "send", "SEND  system call  FAILED ... oops !!"};
constinit RealCall<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> real_sendto{
    "sendto"};
constinit RealCall<ssize_t(int, int, void*, size_t)> real_sendfile{"sendfile"};
constinit RealCall<ssize_t(int, int, void*, size_t)> real_sendfile64{"sendfile64"};

}  // namespace tolvane

using namespace tolvane;

TOLVANE_EXPORT ssize_t send(int fd, const void* buffer, size_t length, int flags) {
    auto call = real_send.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, length, flags);
    return sent(fd, n, buffer, length);
}

TOLVANE_EXPORT ssize_t sendto(int fd, const void* buffer, size_t length, int flags,
                              const sockaddr* to, socklen_t toLength) {
    auto call = real_sendto.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, length, flags, to, toLength);
    return sent(fd, n, buffer, length);
}

TOLVANE_EXPORT ssize_t sendfile(int outFd, int inFd, void* offset, size_t count) {
    auto call = real_sendfile.find();
    return call == nullptr ? -1 : sent(outFd, call(outFd, inFd, offset, count), Buffers{});
}

TOLVANE_EXPORT ssize_t sendfile64(int outFd, int inFd, void* offset, size_t count) {
    auto call = real_sendfile64.find();
    return call == nullptr ? -1 : sent(outFd, call(outFd, inFd, offset, count), Buffers{});
}
