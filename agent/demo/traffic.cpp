// The client of scripts/demo.sh: concurrent keep-alive connections with mixed
// requests to two sites, and exact counts of the requests and bytes.
//
//   tolvane-demo-traffic PORT CONNECTIONS SECONDS
//
// Before and after the mixed requests it keeps CONNECTIONS connections open at once,
// so that every process answers: before, to publish once and thus take the
// configuration; after, to publish the counts of its last response.
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "http_client/connection.h"
#include "http_client/response_reader.h"

namespace {

namespace http_client = tolvane::http_client;
using Clock = std::chrono::steady_clock;

struct Account {
    unsigned long long connections = 0, requests = 0, redirects = 0, clientErrors = 0,
                       bytesToClient = 0, bytesToServer = 0;
    void add(const Account& other) {
        connections += other.connections;
        requests += other.requests;
        redirects += other.redirects;
        clientErrors += other.clientErrors;
        bytesToClient += other.bytesToClient;
        bytesToServer += other.bytesToServer;
    }
};

using Accounts = std::map<std::string, Account>;

struct Request {
    const char* host;
    const char* path;
    const char* category;  // of the demo's configuration; nullptr: no category
};

constexpr Request kElsewhere = {"elsewhere.example", "/", nullptr};

constexpr Request kMix[] = {
    {"shop.example", "/", "pages"},
    {"shop.example", "/index.html", "pages"},
    {"www.shop.example", "/cart/add?item=7", "cart"},
    {"www.shop.example", "/shop-1.html", "cart"},
    {"shop.example", "/photo.jpg", "images"},
    {"shop.example", "/old", nullptr},
    {"shop.example", "/no-such-page", nullptr},
    {"blog.example", "/", nullptr},
    {"blog.example", "/post-1.html", "posts"},
    {"blog.example", "/post-2.html", "posts"},
    {"elsewhere.example", "/", nullptr},
};

std::string siteOf(const Request& request) {
    std::string_view host = request.host;
    if (host == "www.shop.example") host = "shop.example";
    return std::string(host);
}

class Connection {
  public:
    explicit Connection(int port, Accounts& accounts)
        : fd_(http_client::connectTo(port, "127.0.0.1", std::chrono::seconds(30))),
          accounts_(accounts) {}
    ~Connection() { ::close(fd_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void exchange(const Request& request) {
        Account account;
        account.requests = 1;
        std::string text =
            fmt::format("GET {} HTTP/1.1\r\nHost: {}\r\n\r\n", request.path, request.host);
        http_client::sendAll(fd_, text);
        account.bytesToServer = text.size();
        int status = readResponse(account);
        if (status / 100 == 3) account.redirects = 1;
        if (status / 100 == 4) account.clientErrors = 1;
        if (request.category != nullptr) accounts_[request.category].add(account);
        std::string site = siteOf(request);
        // A connection counts for the first site of the configuration that it requests.
        if (site != kElsewhere.host && !counted_) account.connections = 1;
        counted_ |= account.connections > 0;
        accounts_[site].add(account);
        account.connections = first_ ? 1 : 0;
        accounts_["all traffic"].add(account);
        first_ = false;
    }

  private:
    int readResponse(Account& account) {
        http_client::ResponseReader response;
        while (!response.complete()) {
            char buffer[65536];
            ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
            if (got <= 0) throw std::runtime_error("a response ended early");
            response.feed({buffer, static_cast<std::size_t>(got)});
        }
        if (!response.hasLength()) throw std::runtime_error("a response without Content-Length");
        account.bytesToClient = response.size();
        return response.status();
    }

    int fd_;
    bool first_ = true;
    bool counted_ = false;
    Accounts& accounts_;
};

void callAtEveryProcess(int port, int connections, Accounts& accounts) {
    std::vector<std::unique_ptr<Connection>> open;
    for (int i = 0; i < connections; ++i) {
        open.push_back(std::make_unique<Connection>(port, accounts));
        open.back()->exchange(kElsewhere);
    }
    for (auto& connection : open) connection->exchange(kElsewhere);
}

void mix(int port, Clock::time_point end, unsigned seed, Accounts& accounts) {
    std::mt19937 random(seed);
    while (Clock::now() < end) {
        Connection connection(port, accounts);
        auto requests = 1 + random() % 20;
        for (unsigned long i = 0; i < requests; ++i) {
            connection.exchange(kMix[random() % std::size(kMix)]);
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 8));
        }
    }
}

int run(int port, int connections, int seconds) {
    Accounts total;
    // With several threaded processes, the answering process is random.
    constexpr int kRounds = 5;
    for (int round = 0; round < kRounds; ++round) {
        callAtEveryProcess(port, connections, total);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::vector<Accounts> accounts(static_cast<std::size_t>(connections));
    std::vector<std::string> failures(accounts.size());
    std::vector<std::thread> threads;
    auto end = Clock::now() + std::chrono::seconds(seconds);
    for (unsigned i = 0; i < accounts.size(); ++i) {
        threads.emplace_back([&, i] {
            try {
                mix(port, end, i + 1, accounts[i]);
            } catch (const std::exception& error) {
                failures[i] = error.what();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    callAtEveryProcess(port, connections, total);
    for (const Accounts& part : accounts) {
        for (const auto& [name, account] : part) total[name].add(account);
    }
    for (const auto& [name, account] : total) {
        fmt::print("{}|{}|{}|{}|{}|{}|{}\n", name, account.requests, account.clientErrors,
                   account.redirects, account.connections, account.bytesToClient,
                   account.bytesToServer);
    }
    for (const std::string& failure : failures) {
        if (failure.empty()) continue;
        fmt::print(stderr, "{}\n", failure);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: tolvane-demo-traffic PORT CONNECTIONS SECONDS\n", stderr);
        return 2;
    }
    try {
        return run(std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
