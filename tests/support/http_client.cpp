#include "support/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <list>
#include <stdexcept>

namespace tolvane::test {

std::string get(const std::string& host, const std::string& url) {
    return "GET " + url + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
}

int connectTo(int port, const std::string& host) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = inet_addr(host.c_str());
    // A server that hangs fails the test instead of hanging it too.
    const timeval patience{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect to " + host + ":" + std::to_string(port));
    }
    return fd;
}

void sendAll(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0) throw std::runtime_error("the server does not take the request");
        done += static_cast<std::size_t>(n);
    }
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
    sendAll(fd_, current_.text.substr(sent_));
    if (current_.cutOff) shutdown(fd_, SHUT_WR);
    const std::string response = read();
    const int status = response.empty() ? 0 : std::stoi(response.substr(9, 3));
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

std::string HttpConnection::read() {
    std::string text;
    std::size_t expected = std::string::npos;
    std::vector<char> buffer(1 << 16);
    while (current_.cutOff || text.size() < expected) {
        const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
        if (n < 0) throw std::runtime_error("no response to " + current_.text);
        if (n == 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(n));
        const auto end = text.find("\r\n\r\n");
        const auto length = text.find("Content-Length: ");
        if (end == std::string::npos) continue;
        expected = end + 4 + (length < end ? std::stoul(text.substr(length + 16)) : 0);
    }
    ended_ = current_.cutOff || text.find("Connection: close") != std::string::npos;
    if (!text.empty() && !current_.cutOff && text.size() != expected) {
        throw std::runtime_error("unexpected end of " + text.substr(0, 200));
    }
    return text;
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
