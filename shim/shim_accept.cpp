// accept and accept4: tracking of a connection begins here.
#include <sys/socket.h>

#include "real_calls.h"
#include "shim_utils/accounting/accounting.h"
#include "shim_utils/lifecycle/first_connection.h"
#include "shim_utils/lifecycle/process_identity.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/slots/serving_thread.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

constinit RealCall<AcceptCall> real_accept{"accept", "ACCEPT system call  FAILED ... oops !!"};
constinit RealCall<Accept4Call> real_accept4{"accept4"};

namespace {

// What a listening socket accepts.
enum class Listener { kUnknown, kLocal, kPlain, kSsl };

Listener listenerOf(int fd) {
    if (tolvaneShimEnabled.load(std::memory_order_acquire) == 0) return Listener::kUnknown;
    if (localListenSocket.contains(fd)) return Listener::kLocal;
    if (sslHttpListenSocket.contains(fd)) return Listener::kSsl;
    return httpListenSocket.contains(fd) ? Listener::kPlain : Listener::kUnknown;
}

SocketKind kindOf(Listener listener) {
    if (listener == Listener::kPlain) return kPlain;
    return listener == Listener::kSsl ? kSsl : kUntracked;
}

int accepted(Listener listener, int newFd) {
    if (newFd < 1 || tolvaneShimEnabled.load(std::memory_order_acquire) == 0) return newFd;
    ErrnoGuard guard;
    if (listener == Listener::kLocal) {
        forgetDescriptor(newFd);
        return newFd;
    }
    if (!mayServe()) return newFd;
    if (webServerType != kNetscape) discoverParent();
    const SocketKind kind = kindOf(listener);
    if (kind != kUntracked && webServerType != kNetscape &&
        !readyForConnections.load(std::memory_order_acquire)) {
        makeReadyForConnections();
    }
    countAccepted(newFd, kind);
    return newFd;
}

}  // namespace
}  // namespace tolvane

// The listening socket is looked up before the call: a signal handler that runs when
// the call returns may close it, as that of an Apache process that is to end does.

TOLVANE_EXPORT int accept(int fd, sockaddr* address, socklen_t* length) {
    auto call = tolvane::real_accept.find();
    if (call == nullptr) return -1;
    const auto listener = tolvane::listenerOf(fd);
    return tolvane::accepted(listener, call(fd, address, length));
}

TOLVANE_EXPORT int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    auto call = tolvane::real_accept4.find();
    if (call == nullptr) return -1;
    const auto listener = tolvane::listenerOf(fd);
    return tolvane::accepted(listener, call(fd, address, length, flags));
}
