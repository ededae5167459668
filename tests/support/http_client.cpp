#include "support/http_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <list>
#include <stdexcept>

namespace tolvane::test {

std::string get(const std::string& host, const std::string& url) {
    return "GET " + url + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
}

HttpConnection::HttpConnection(int port, Counts& counts) : fd_(connectTo(port)), counts_(counts) {
    ++counts_.total.connections;
}

HttpConnection::~HttpConnection() {
    close(fd_);
}

void HttpConnection::begin(const Exchange& request, std::size_t split) {
    current_ = request;
    sent_ = split;
    sendAll(fd_, request.text.substr(0, split));
}

int HttpConnection::finish() {
    sendAll(fd_, std::string_view(current_.text).substr(sent_));
    if (current_.cutOff) shutdown(fd_, SHUT_WR);
    const http_client::ResponseReader response = read();
    const int status = response.empty() ? 0 : response.status();
    const auto& [text, site, category, cutOff] = current_;
    counts_.addRequest(site, category, text.size(), response.size(), status);
    if (site >= 0 && !seenSite_) {
        seenSite_ = true;
        ++counts_.site[site].connections;
    }
    return status;
}

int HttpConnection::exchange(const Exchange& request) {
    begin(request, 0);
    return finish();
}

http_client::ResponseReader HttpConnection::read() {
    http_client::ResponseReader response;
    std::vector<char> buffer(1 << 16);
    while (current_.cutOff || !response.complete()) {
        const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
        if (n < 0) throw std::runtime_error("no response to " + current_.text);
        if (n == 0) break;
        response.feed({buffer.data(), static_cast<std::size_t>(n)});
    }
    ended_ = current_.cutOff || response.closing();
    if (!response.empty() && !current_.cutOff && !response.complete()) {
        throw std::runtime_error("unexpected end of the response to " + current_.text);
    }
    return response;
}

Counts run(int port, const Load& load) {
    const auto client = [&](int offset) {
        Counts counts;
        auto next = static_cast<std::size_t>(offset);
        for (int c = 0; c < load.connections; ++c) {
            HttpConnection connection(port, counts);
            for (int r = 0; r < load.requests && !connection.ended(); ++r) {
                connection.exchange(load.mix[next++ % load.mix.size()]);
            }
        }
        return counts;
    };
    std::vector<std::future<Counts>> clients;
    for (int i = 0; i < load.threads; ++i) {
        clients.push_back(std::async(std::launch::async, client, i));
    }
    Counts sum;
    for (auto& one : clients) sum += one.get();
    return sum;
}

Counts warmUp(int port, int connections, const std::string& text, int requests) {
    Counts counts;
    const Exchange request{.text = text};
    std::list<HttpConnection> open;
    for (int i = 0; i < connections; ++i) open.emplace_back(port, counts).begin(request, 20);
    for (auto& connection : open) connection.finish();
    for (int r = 1; r < requests; ++r) {
        for (auto& connection : open) connection.exchange(request);
    }
    return counts;
}

}  // namespace tolvane::test
