#include "closed_loop.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace tolvane::bench {
namespace {

constexpr int kPatience = 30'000;  // milliseconds without any response

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

ClosedLoop::ClosedLoop(int port, const Load& load)
    : port_(port),
      load_(load),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      connections_(static_cast<std::size_t>(load.connections)),
      buffer_(1 << 18) {
    if (epoll_ < 0) fail("epoll_create1");
    for (std::size_t i = 0; i < connections_.size(); ++i) {
        open(i);
        idle_.push_back(i);
    }
}

ClosedLoop::~ClosedLoop() {
    for (Connection& connection : connections_) shut(connection);
    close(epoll_);
}

void ClosedLoop::open(std::size_t index) {
    Connection& connection = connections_[index];
    connection.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connection.fd < 0) fail("socket");
    connection.served = 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(connection.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        fail("no connection to port " + std::to_string(port_));
    }
    const int on = 1;
    setsockopt(connection.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, connection.fd, &event) != 0) fail("epoll_ctl");
}

void ClosedLoop::shut(Connection& connection) {
    if (connection.fd >= 0) close(connection.fd);
    connection.fd = -1;
}

// Sends the request that the connection has in flight.
void ClosedLoop::send(std::size_t index) {
    Connection& connection = connections_[index];
    if (connection.fd < 0) open(index);
    connection.head.clear();
    connection.bodyLeft = -1;
    connection.closing = false;
    const std::string& text = *connection.request;
    // A server that has just closed the connection is noticed by the read.
    if (::send(connection.fd, text.data(), text.size(), MSG_NOSIGNAL) < 0 && errno != EPIPE &&
        errno != ECONNRESET) {
        fail("send");
    }
}

void ClosedLoop::startNext() {
    const std::size_t index = idle_.front();
    idle_.pop_front();
    Connection& connection = connections_[index];
    connection.request = &load_.requests[nextRequest_++ % load_.requests.size()];
    connection.sent = Clock::now();
    send(index);
}

void ClosedLoop::readHead(Connection& connection) {
    const std::size_t end = connection.head.find("\r\n\r\n");
    if (end == std::string::npos) return;
    const std::string_view head = std::string_view(connection.head).substr(0, end);
    if (!head.starts_with("HTTP/1.1 ")) throw std::runtime_error("not a response");
    const std::size_t length = head.find("Content-Length: ");
    if (length == std::string_view::npos && !head.starts_with("HTTP/1.1 304")) {
        throw std::runtime_error("a response without Content-Length");
    }
    connection.bodyLeft = length == std::string_view::npos
                              ? 0
                              : std::strtoll(connection.head.c_str() + length + 16, nullptr, 10);
    connection.closing = head.find("Connection: close") != std::string_view::npos;
    connection.bodyLeft -= static_cast<std::int64_t>(connection.head.size() - end - 4);
}

bool ClosedLoop::receive(std::size_t index) {
    Connection& connection = connections_[index];
    const ssize_t got = recv(connection.fd, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (got <= 0) {
        const bool answered = connection.request != nullptr && !connection.head.empty();
        if (answered) throw std::runtime_error("a response ended early");
        shut(connection);
        if (connection.request != nullptr) send(index);
        return false;
    }
    if (connection.request == nullptr) throw std::runtime_error("a response to no request");
    if (connection.bodyLeft < 0) {
        connection.head.append(buffer_.data(), static_cast<std::size_t>(got));
        readHead(connection);
    } else {
        connection.bodyLeft -= got;
    }
    return connection.bodyLeft == 0;
}

std::vector<double> ClosedLoop::run(int count) {
    std::vector<double> took;
    took.reserve(static_cast<std::size_t>(count));
    int started = 0;
    for (; started < count && started < load_.inFlight && !idle_.empty(); ++started) startNext();
    while (took.size() < static_cast<std::size_t>(count)) {
        epoll_event events[64];
        const int n = epoll_wait(epoll_, events, 64, kPatience);
        if (n == 0) throw std::runtime_error("the server does not answer");
        for (int i = 0; i < n; ++i) {
            const std::size_t index = events[i].data.u64;
            Connection& connection = connections_[index];
            if (connection.fd < 0 || !receive(index)) continue;
            took.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - connection.sent).count());
            connection.request = nullptr;
            if (connection.closing || ++connection.served >= load_.requestsPerConnection) {
                shut(connection);
            }
            idle_.push_back(index);
            if (started == count) continue;
            ++started;
            startNext();
        }
    }
    return took;
}

}  // namespace tolvane::bench
