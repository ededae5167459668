#include "http/listen_address.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

constexpr char kForms[] =
    "an address is '127.0.0.1:9931', 'localhost:9931', '[::1]:9931', '*:9931' for all addresses of "
    "this machine, or "
    "'9931' for loopback";

bool isNumeric(int family, const std::string& host) {
    unsigned char bytes[sizeof(in6_addr)];
    return ::inet_pton(family, host.c_str(), bytes) == 1;
}

bool isIpv6(const std::string& host) {
    return host.find(':') != std::string::npos;
}

std::uint16_t parsePort(std::string_view text, std::string_view whole) {
    std::uint16_t port = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size()) {
        fail(ErrorKind::kInvalidInput, "'{}': '{}' is not a port from 0 to 65535; {}",
             printable(whole), printable(text), kForms);
    }
    return port;
}

// The part before the port, without brackets.
std::string parseHost(std::string_view text, std::string_view whole) {
    if (text.empty() || text == "*") return "";
    if (text == "localhost") return "127.0.0.1";
    bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
    std::string host(bracketed ? text.substr(1, text.size() - 2) : text);
    if (!isNumeric(bracketed ? AF_INET6 : AF_INET, host)) {
        const char* hint = isIpv6(host) ? "an IPv6 address needs brackets; " : "";
        fail(ErrorKind::kInvalidInput, "'{}': '{}' is not a numeric address; {}{}",
             printable(whole), printable(text), hint, kForms);
    }
    return host;
}

// The socket's address, or every address of one family.
struct SocketAddress {
    SocketAddress(const ListenAddress& address, int family) {
        if (family == AF_INET6) {
            sockaddr_in6 v6{};
            v6.sin6_family = AF_INET6;
            v6.sin6_port = htons(address.port);
            if (!address.host.empty()) {
                ::inet_pton(AF_INET6, address.host.c_str(), &v6.sin6_addr);
            }
            fill(v6);
        } else {
            sockaddr_in v4{};
            v4.sin_family = AF_INET;
            v4.sin_port = htons(address.port);
            if (!address.host.empty()) ::inet_pton(AF_INET, address.host.c_str(), &v4.sin_addr);
            fill(v4);
        }
    }
    template <typename Address>
    void fill(const Address& address) {
        std::memcpy(&storage, &address, sizeof address);
        size = sizeof address;
    }
    sockaddr_storage storage{};
    socklen_t size = 0;
};

// Returns -1 with errno on failure.
int tryToListen(const ListenAddress& address, int family) {
    int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int on = 1;
    int off = 0;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (family == AF_INET6) ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    SocketAddress name(address, family);
    constexpr int kBacklog = 64;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&name.storage), name.size) == 0 &&
        ::listen(fd, kBacklog) == 0) {
        return fd;
    }
    int error = errno;
    ::close(fd);
    errno = error;
    return -1;
}

}  // namespace

ListenAddress parseListenAddress(std::string_view text) {
    ListenAddress address;
    if (text.find_first_not_of("0123456789") == std::string_view::npos && !text.empty()) {
        address.port = parsePort(text, text);
        return address;
    }
    std::size_t colon = text.rfind(':');
    std::size_t bracket = text.rfind(']');
    if (colon == std::string_view::npos || (bracket != std::string_view::npos && bracket > colon)) {
        fail(ErrorKind::kInvalidInput, "'{}': the port is missing; {}", printable(text), kForms);
    }
    address.host = parseHost(text.substr(0, colon), text);
    address.port = parsePort(text.substr(colon + 1), text);
    return address;
}

std::string toString(const ListenAddress& address) {
    if (address.host.empty()) return fmt::format("*:{}", address.port);
    return isIpv6(address.host) ? fmt::format("[{}]:{}", address.host, address.port)
                                : fmt::format("{}:{}", address.host, address.port);
}

int listenOn(const ListenAddress& address) {
    bool all = address.host.empty();
    int fd = tryToListen(address, all || isIpv6(address.host) ? AF_INET6 : AF_INET);
    // The system or all interfaces have no IPv6.
    if (fd < 0 && all && (errno == EAFNOSUPPORT || errno == EADDRNOTAVAIL)) {
        fd = tryToListen(address, AF_INET);
    }
    if (fd < 0) {
        fail(ErrorKind::kFailed, "cannot listen on {}: {}", toString(address),
             std::strerror(errno));
    }
    return fd;
}

std::uint16_t portOf(int listeningSocket) {
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;
    ::getsockname(listeningSocket, reinterpret_cast<sockaddr*>(&storage), &size);
    // The port has the same offset in both families.
    sockaddr_in address{};
    std::memcpy(&address, &storage, sizeof address);
    return ntohs(address.sin_port);
}

}  // namespace tolvane::agent
