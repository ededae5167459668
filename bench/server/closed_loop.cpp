#include "closed_loop.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "http_client/connection.h"

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
    connection.fd = http_client::connectTo(port_, "127.0.0.1", std::chrono::seconds(0));
    connection.served = 0;
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
    connection.response.clear();
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

bool ClosedLoop::receive(std::size_t index) {
    Connection& connection = connections_[index];
    const ssize_t got = recv(connection.fd, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (got <= 0) {
        const bool answered = connection.request != nullptr && !connection.response.empty();
        if (answered) throw std::runtime_error("a response ended early");
        shut(connection);
        if (connection.request != nullptr) send(index);
        return false;
    }
    if (connection.request == nullptr) throw std::runtime_error("a response to no request");
    http_client::ResponseReader& response = connection.response;
    response.feed({buffer_.data(), static_cast<std::size_t>(got)});
    if (response.complete() && !response.hasLength() && response.status() != 304) {
        throw std::runtime_error("a response without Content-Length");
    }
    return response.complete();
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
            if (connection.response.closing() ||
                ++connection.served >= load_.requestsPerConnection) {
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
