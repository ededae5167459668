#include "http_client/connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace tolvane::http_client {

int connectTo(int port, const std::string& host, std::chrono::seconds patience) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = inet_addr(host.c_str());
    const timeval limit{static_cast<time_t>(patience.count()), 0};
    if (patience.count() > 0) setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        close(fd);
        throw std::runtime_error("cannot connect to " + host + ":" + std::to_string(port) + ": " +
                                 std::strerror(error));
    }
    return fd;
}

void sendAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (n < 0) throw std::runtime_error("the server does not accept the request");
        text.remove_prefix(static_cast<std::size_t>(n));
    }
}

}  // namespace tolvane::http_client
