// Ends connections of clients that send their request or read its response too slowly,
// so that they do not occupy all connections.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace tolvane::agent {

class SlowClients {
  public:
    // Request headers must be complete after `headerLimit`. If more than `capacity`
    // connections are open, the oldest incomplete request ends, or else the oldest
    // response.
    SlowClients(std::size_t capacity, std::chrono::milliseconds headerLimit);
    ~SlowClients();
    SlowClients(const SlowClients&) = delete;
    SlowClients& operator=(const SlowClients&) = delete;

    // `socket` is open until closed() has returned.
    void opened(int socket);
    void headersComplete(int socket);
    void responseSent(int socket);
    void closed(int socket);

  private:
    using Clock = std::chrono::steady_clock;
    struct Connection {
        Clock::time_point since;  // of the request or of the response
        bool incomplete = true;   // its headers
        bool ended = false;
    };
    void setState(int socket, bool incomplete);
    void endOldest();
    void endLate();
    void watch();

    const std::size_t capacity_;
    const std::chrono::milliseconds headerLimit_;
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopped_ = false;
    std::map<int, Connection> connections_;
    std::thread watcher_;
};

}  // namespace tolvane::agent
