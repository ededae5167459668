// listen: records which of the server's sockets are its HTTP and SSL listening
// sockets, and starts the measurement at the first of them.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>

#include "real_calls.h"
#include "shim_monitor.h"
#include "shim_utils/discovery/port_table.h"
#include "shim_utils/discovery/server_discovery.h"
#include "shim_utils/lifecycle/process_identity.h"
#include "shim_utils/lifecycle/start_up.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/text.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

constinit RealCall<int(int, int)> real_listen{"listen", "LISTEN  system call  FAILED ... oops !!"};

namespace {

bool first = true;                // discovery has not run yet
bool tolvaneInitialized = false;  // start-up has not been tried yet

// Stands for an IPv6 address that is not an IPv4 address. It matches only wildcard
// entries, which have the same value.
constexpr std::uint32_t kNoIpv4Address = kAnyAddress;

std::uint32_t ipv4Part(const in6_addr& address) {
    if (IN6_IS_ADDR_UNSPECIFIED(&address)) return 0;
    if (!IN6_IS_ADDR_V4MAPPED(&address)) return kNoIpv4Address;
    std::uint32_t ipv4;
    std::memcpy(&ipv4, address.s6_addr + 12, sizeof ipv4);
    return ipv4;
}

// False for a socket that is neither IPv4 nor IPv6.
bool readSocketAddress(const sockaddr_storage& local, SocketAddress& result) {
    if (local.ss_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(local);
        result = {ntohs(ipv4.sin_port), ipv4.sin_addr.s_addr};
        return true;
    }
    if (local.ss_family == AF_INET6) {
        const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(local);
        result = {ntohs(ipv6.sin6_port), ipv4Part(ipv6.sin6_addr)};
        return true;
    }
    return false;
}

SocketKind kindOf(const SocketAddress& socket) {
    if (tableMatches(sslPorts, socket)) return kSsl;
    if (isSslWithoutEntry(socket)) return kUntracked;
    return tableMatches(plainPorts, socket) ? kPlain : kUntracked;
}

// Ensures that a range close includes `fd`.
void includeInRanges(int fd) {
    if (!ListenTable::fits(fd) || fd < trackedLimit.load(std::memory_order_relaxed)) return;
    trackedLimit.store(fd + 1, std::memory_order_relaxed);
}

// Replaces the entries of an earlier socket with the same number.
void record(int fd, const SocketAddress& socket, SocketKind kind) {
    sslHttpListenSocket.set(fd, kind == kSsl);
    httpListenSocket.set(fd, kind == kPlain);
    localListenSocket.set(fd, false);
    includeInRanges(fd);
    if (kind == kUntracked || ListenTable::fits(fd)) return;
    Text<160> message;
    message.add("No room for another listening socket: descriptor ").add(fd);
    message.add(", port ").add(socket.port).add(" is not measured");
    printErrorMsg(message.text());
}

void recordLocal(int fd) {
    sslHttpListenSocket.set(fd, false);
    httpListenSocket.set(fd, false);
    localListenSocket.set(fd, true);
    includeInRanges(fd);
}

void discoverOnce() {
    if (!first) return;
    first = false;
    getWebServerInfo();
    tolvaneShimEnabled.store(0, std::memory_order_relaxed);
}

void startOnce() {
    if (tolvaneInitialized) return;
    listenPid = getpid();
    parentPid.store(listenPid, std::memory_order_relaxed);
    cleanUpAtExit();
    initializeTolvaneShim();
    tolvaneInitialized = true;
    if (webServerType != kNetscape) parentPid.store(kUnknownPid, std::memory_order_relaxed);
}

// A lock for discovery and start-up. A mutex of the C library would stay locked in a
// child that another thread forks meanwhile.
class DiscoveryLock {
  public:
    DiscoveryLock() {
        constexpr timespec kPause = {0, 1'000'000};
        constexpr int kTries = 10'000;
        const int self = getpid();
        for (int i = 0; i < kTries; ++i) {
            int holder = 0;
            if (holder_.compare_exchange_strong(holder, self, std::memory_order_acquire)) {
                held_ = true;
                return;
            }
            if (holder != self && takeOver(holder, self)) return;
            nanosleep(&kPause, nullptr);
        }
    }
    ~DiscoveryLock() {
        if (held_) holder_.store(0, std::memory_order_release);
    }
    DiscoveryLock(const DiscoveryLock&) = delete;
    DiscoveryLock& operator=(const DiscoveryLock&) = delete;

    bool held() const { return held_; }

  private:
    // The child was forked while the parent held the lock, so its tables may be
    // incomplete. The child stays unobserved.
    bool takeOver(int holder, int self) {
        if (!holder_.compare_exchange_strong(holder, self, std::memory_order_acquire)) return false;
        first = false;
        tolvaneInitialized = true;
        tolvaneShimEnabled.store(0, std::memory_order_relaxed);
        held_ = true;
        return true;
    }

    static inline std::atomic<int> holder_{0};  // process that holds the lock; 0: free
    bool held_ = false;
};

void examine(int fd) {
    sockaddr_storage local = {};
    socklen_t length = sizeof local;
    if (!ownsMemory()) return;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return;
    DiscoveryLock lock;
    if (!lock.held()) return;
    discoverOnce();
    SocketAddress socket;
    if (!readSocketAddress(local, socket)) {
        recordLocal(fd);
        return;
    }
    SocketKind kind = kindOf(socket);
    record(fd, socket, kind);
    if (kind != kUntracked) startOnce();
}

}  // namespace
}  // namespace tolvane

TOLVANE_EXPORT int listen(int fd, int backlog) noexcept {
    using namespace tolvane;
    auto call = real_listen.find();
    if (call == nullptr) return -1;
    int result = call(fd, backlog);
    ErrnoGuard guard;
    if (result < 0) {
        printErrorMsg("LISTEN FAILED");
    } else {
        examine(fd);
    }
    return result;
}
