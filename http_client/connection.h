// A TCP connection to a server on this machine.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace tolvane::http_client {

// Returns a socket connected to an IPv4 address of this machine, whose receive calls give up after
// `patience` (0: never), so a server that does not answer cannot block the client. Throws
// std::runtime_error.
int connectTo(int port, const std::string& address = "127.0.0.1",
              std::chrono::seconds patience = std::chrono::seconds(20));

// Throws std::runtime_error if the server does not accept all of the data.
void sendAll(int fd, std::string_view text);

}  // namespace tolvane::http_client
