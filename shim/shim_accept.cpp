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

SocketKind classify(int listeningFd) {
    if (sslHttpListenSocket.contains(listeningFd)) return kSsl;
    return httpListenSocket.contains(listeningFd) ? kPlain : kUntracked;
}

int accepted(int listeningFd, int newFd) {
    if (newFd < 1 || tolvaneShimEnabled.load(std::memory_order_acquire) == 0) return newFd;
    ErrnoGuard guard;
    if (localListenSocket.contains(listeningFd)) {
        forgetDescriptor(newFd);
        return newFd;
    }
    if (!mayServe()) return newFd;
    if (webServerType != kNetscape) discoverParent();
    SocketKind kind = classify(listeningFd);
    if (kind != kUntracked && webServerType != kNetscape &&
        !readyForConnections.load(std::memory_order_acquire)) {
        makeReadyForConnections();
    }
    countAccepted(newFd, kind);
    return newFd;
}

}  // namespace
}  // namespace tolvane

TOLVANE_EXPORT int accept(int fd, sockaddr* address, socklen_t* length) {
    auto call = tolvane::real_accept.find();
    return call == nullptr ? -1 : tolvane::accepted(fd, call(fd, address, length));
}

TOLVANE_EXPORT int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    auto call = tolvane::real_accept4.find();
    return call == nullptr ? -1 : tolvane::accepted(fd, call(fd, address, length, flags));
}
