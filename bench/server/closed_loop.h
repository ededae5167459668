// A client of one server: a fixed number of requests in flight, the next one
// sent when a response is complete, over connections that take turns.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "http_client/response_reader.h"

namespace tolvane::bench {

struct Load {
    std::vector<std::string> requests;
    int connections;
    int inFlight;
    int requestsPerConnection;  // then the client closes it and opens another
};

class ClosedLoop {
  public:
    ClosedLoop(int port, const Load& load);
    ~ClosedLoop();
    ClosedLoop(const ClosedLoop&) = delete;
    ClosedLoop& operator=(const ClosedLoop&) = delete;

    // Makes `count` requests and returns how long each took, in microseconds.
    // Throws std::runtime_error when the server does not answer as HTTP does.
    std::vector<double> run(int count);

  private:
    using Clock = std::chrono::steady_clock;
    struct Connection {
        int fd = -1;
        int served = 0;
        const std::string* request = nullptr;  // in flight, null: none
        Clock::time_point sent;
        http_client::ResponseReader response;
    };

    void open(std::size_t index);
    void shut(Connection& connection);
    void startNext();
    void send(std::size_t index);
    bool receive(std::size_t index);  // true when the response is complete

    int port_;
    const Load& load_;
    int epoll_;
    std::size_t nextRequest_ = 0;
    std::vector<Connection> connections_;
    std::deque<std::size_t> idle_;
    std::vector<char> buffer_;
};

}  // namespace tolvane::bench
