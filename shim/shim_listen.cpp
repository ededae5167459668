// listen: learns which of the server's sockets are its HTTP and SSL listening
// sockets, and starts the measurement at the first of them.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "real_calls.h"
#include "shim_utils/errno_guard.h"
#include "shim_utils/log.h"
#include "shim_utils/process_identity.h"
#include "shim_utils/server_discovery.h"
#include "shim_utils/shutdown.h"
#include "shim_utils/start_up.h"
#include "shim_utils/text.h"
#include "tolvane/entry_points.h"
#include "tolvane/shim_tables.h"

namespace tolvane {

constinit RealCall<int(int, int)> real_listen{"listen", "LISTEN  system call  FAILED ... oops !!"};

namespace {

bool first = true;                // discovery has not run yet
bool tolvaneInitialized = false;  // start-up has not been tried yet

struct LocalAddress {
    int port;               // host byte order
    std::uint32_t address;  // network byte order; 0: bound to all addresses
};

// An IPv6 address that is no IPv4 one matches nothing but a wildcard entry,
// which is what this value equals.
constexpr std::uint32_t kNoIpv4Address = kAnyAddress;

std::uint32_t ipv4Part(const in6_addr& address) {
    if (IN6_IS_ADDR_UNSPECIFIED(&address)) return 0;
    if (!IN6_IS_ADDR_V4MAPPED(&address)) return kNoIpv4Address;
    std::uint32_t ipv4;
    std::memcpy(&ipv4, address.s6_addr + 12, sizeof ipv4);
    return ipv4;
}

// False for sockets of any family but the Internet's.
bool readLocalAddress(const sockaddr_storage& local, LocalAddress& result) {
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

bool entryMatches(const PortTable& table, int i, const LocalAddress& socket) {
    std::uint32_t address = table.ipAddress[i];
    bool sameAddress = address == socket.address || address == kAnyAddress;
    if (table.httpPort[i] == kAnyPort) return sameAddress;
    return table.httpPort[i] == socket.port && (sameAddress || socket.address == 0);
}

bool tableMatches(const PortTable& table, const LocalAddress& socket) {
    for (int i = 0; i < table.numHttpPort; ++i) {
        if (entryMatches(table, i, socket)) return true;
    }
    return false;
}

void record(ListenTable& table, int fd, const LocalAddress& socket) {
    if (table.contains(fd)) return;  // a socket that listens again
    if (table.count == kMaxAddresses) {
        Text<160> message;
        message.add("No room for another listening socket: descriptor ").add(fd);
        message.add(", port ").add(socket.port).add(" is not measured");
        printErrorMsg(message.text());
        return;
    }
    table.descriptor[table.count++] = fd;
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

void examine(int fd) {
    sockaddr_storage local = {};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return;
    if (first) {
        first = false;
        getWebServerInfo();
        tolvaneShimEnabled.store(0, std::memory_order_relaxed);
    }
    LocalAddress socket;
    if (!readLocalAddress(local, socket)) return;
    bool ssl = tableMatches(sslPorts, socket);
    if (!ssl && !tableMatches(plainPorts, socket)) return;
    record(ssl ? sslHttpListenSocket : httpListenSocket, fd, socket);
    startOnce();
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
