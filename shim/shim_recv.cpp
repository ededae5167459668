// recv, recvfrom, and their checked variants in hardened binaries.
#include <sys/socket.h>

#include "real_calls.h"
#include "received_flags.h"
#include "tolvane/entry_points.h"

namespace tolvane {

constinit RealCall<ssize_t(int, void*, size_t, int)> real_recv{"recv"};
constinit RealCall<ssize_t(int, void*, size_t, size_t, int)> real_recv_chk{"__recv_chk"};
constinit RealCall<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> real_recvfrom{
    "recvfrom"};
constinit RealCall<ssize_t(int, void*, size_t, size_t, int, sockaddr*, socklen_t*)>
    real_recvfrom_chk{"__recvfrom_chk"};

}  // namespace tolvane

using namespace tolvane;

TOLVANE_EXPORT ssize_t recv(int fd, void* buffer, size_t length, int flags) {
    auto call = real_recv.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, length, flags);
    return receivedWithFlags(fd, n, buffer, length, flags);
}

TOLVANE_EXPORT ssize_t __recv_chk(int fd, void* buffer, size_t length, size_t size, int flags) {
    auto call = real_recv_chk.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, length, size, flags);
    return receivedWithFlags(fd, n, buffer, length, flags);
}

TOLVANE_EXPORT ssize_t recvfrom(int fd, void* buffer, size_t length, int flags, sockaddr* from,
                                socklen_t* fromLength) {
    auto call = real_recvfrom.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, length, flags, from, fromLength);
    return receivedWithFlags(fd, n, buffer, length, flags);
}

TOLVANE_EXPORT ssize_t __recvfrom_chk(int fd, void* buffer, size_t length, size_t size, int flags,
                                      sockaddr* from, socklen_t* fromLength) {
    auto call = real_recvfrom_chk.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, length, size, flags, from, fromLength);
    return receivedWithFlags(fd, n, buffer, length, flags);
}
