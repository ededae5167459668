#include "http/slow_clients.h"

#include <sys/socket.h>

#include <algorithm>

namespace tolvane::agent {

SlowClients::SlowClients(std::size_t capacity, std::chrono::milliseconds headerLimit)
    : capacity_(capacity), headerLimit_(headerLimit), watcher_([this] { watch(); }) {}

SlowClients::~SlowClients() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    stop_.notify_all();
    watcher_.join();
}

void SlowClients::opened(int socket) {
    std::lock_guard lock(mutex_);
    connections_[socket] = {Clock::now()};
    auto open = std::count_if(connections_.begin(), connections_.end(),
                              [](const auto& entry) { return !entry.second.ended; });
    if (static_cast<std::size_t>(open) > capacity_) endOldest();
}

void SlowClients::headersComplete(int socket) {
    setState(socket, false);
}

void SlowClients::responseSent(int socket) {
    setState(socket, true);
}

void SlowClients::closed(int socket) {
    std::lock_guard lock(mutex_);
    connections_.erase(socket);
}

void SlowClients::setState(int socket, bool incomplete) {
    std::lock_guard lock(mutex_);
    auto found = connections_.find(socket);
    if (found == connections_.end()) return;
    found->second.since = Clock::now();
    found->second.incomplete = incomplete;
}

// The server notices the end of the stream and closes the socket.
void SlowClients::endOldest() {
    auto oldest = connections_.end();
    for (auto entry = connections_.begin(); entry != connections_.end(); ++entry) {
        const Connection& connection = entry->second;
        if (connection.ended) continue;
        bool better = oldest == connections_.end() ||
                      std::pair(!connection.incomplete, connection.since) <
                          std::pair(!oldest->second.incomplete, oldest->second.since);
        if (better) oldest = entry;
    }
    if (oldest == connections_.end()) return;
    oldest->second.ended = true;
    ::shutdown(oldest->first, SHUT_RDWR);
}

void SlowClients::endLate() {
    auto latest = Clock::now() - headerLimit_;
    for (auto& [socket, connection] : connections_) {
        if (connection.ended || !connection.incomplete || connection.since > latest) continue;
        connection.ended = true;
        ::shutdown(socket, SHUT_RDWR);
    }
}

void SlowClients::watch() {
    std::unique_lock lock(mutex_);
    while (!stopped_) {
        stop_.wait_for(lock, std::min(headerLimit_ / 4, std::chrono::milliseconds(500)));
        endLate();
    }
}

}  // namespace tolvane::agent
