// The address of the HTTP server: the argument of --listen.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tolvane::agent {

inline constexpr std::uint16_t kDefaultWebPort = 9931;

struct ListenAddress {
    std::string host = "127.0.0.1";        // IPv4 or IPv6, numeric; empty: all addresses
    std::uint16_t port = kDefaultWebPort;  // 0: any free port
};

// "127.0.0.1:9931", "[::1]:9931", ":9931" or "*:9931" for all addresses, "9931"
// for loopback. Throws Error with the valid forms.
ListenAddress parseListenAddress(std::string_view text);

// In the same form: "[::1]:9931", "*:9931".
std::string toString(const ListenAddress& address);

// A socket that listens on the address. For all addresses it accepts IPv6 and
// IPv4, or IPv4 only where the system has no IPv6. Throws Error.
int listenOn(const ListenAddress& address);

// The port of the socket.
std::uint16_t portOf(int listeningSocket);

}  // namespace tolvane::agent
