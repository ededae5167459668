// The server on a real socket, with slow, faulty and greedy clients.
#include "http/http_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "http/host_rule.h"
#include "os/error.h"
#include "support/http_client.h"
#include "support/process.h"

namespace tolvane::agent {
namespace {

using tolvane::test::connectTo;
using tolvane::test::sendAll;

class Client {
  public:
    explicit Client(std::uint16_t port, const std::string& text = "") : fd_(connectTo(port)) {
        sendAll(fd_, text);
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send(const std::string& text) const { sendAll(fd_, text); }
    // All that comes until the server ends the connection.
    std::string rest() const {
        std::string text;
        char buffer[65536];
        for (ssize_t n; (n = ::recv(fd_, buffer, sizeof buffer, 0)) > 0;) {
            text.append(buffer, static_cast<std::size_t>(n));
        }
        return text;
    }

  private:
    int fd_;
};

std::string request(const std::string& method, const std::string& target,
                    const std::string& more = "") {
    return method + " " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + more +
           "\r\n";
}

HttpResponse echo(const HttpRequest& asked) {
    if (asked.path == "/throw") throw std::runtime_error("thrown");
    if (asked.path == "/large") return {200, "text/plain", std::string(40U << 20, 'x'), {}};
    HttpResponse response{200, "text/plain", asked.method + " " + asked.path, {{"X-More", "yes"}}};
    for (const auto& [name, value] : asked.query) response.body += "|" + name + "=" + value;
    return response;
}

struct HttpServerTest : testing::Test {
    HttpServer server{parseListenAddress("127.0.0.1:0"), echo};

    std::string answerTo(const std::string& text) const {
        return Client(server.port(), text).rest();
    }
};

TEST_F(HttpServerTest, AnswersEveryRequest) {
    struct Case {
        std::string text;
        std::string start;
        std::string part;
        std::string end;
    };
    const Case cases[] = {
        {request("GET", "/a%20b?server=%2A%3A80&x"), "HTTP/1.1 200 ", "X-More: yes",
         "\r\n\r\nGET /a b|server=*:80|x="},
        {request("HEAD", "/1234"), "HTTP/1.1 200 ", "Content-Length: 10", "\r\n\r\n"},
        {request("GET", "/"), "HTTP/1.1 200 ", "Content-Security-Policy: default-src 'self';",
         "GET /"},
        {request("GET", "/"), "HTTP/1.1 200 ", "X-Content-Type-Options: nosniff", ""},
        {request("POST", "/", "Content-Length: 5\r\n") + "hello", "HTTP/1.1 405 ",
         "Allow: GET, HEAD", "\n"},
        {request("POST", "/", "Content-Length: 99999999999\r\n"), "HTTP/1.1 405 ", "", "\n"},
        {request("GET", "/", "Transfer-Encoding: chunked\r\n"), "HTTP/1.1 200 ", "", "GET /"},
        {request("BREW", "/"), "HTTP/1.1 405 ", "Allow: GET, HEAD", "\n"},
        {request("GET", "/throw"), "HTTP/1.1 500 ", "", "thrown\n"},
        {request("GET", "/", "X: " + std::string(60000, 'x') + "\r\n"), "HTTP/1.1 431 ", "", ""},
        {request("GET", "/" + std::string(60000, 'x')), "HTTP/1.1 414 ", "", ""},
        {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", "HTTP/1.1 400 ", "", ""},
    };
    for (const Case& c : cases) {
        std::string answer = answerTo(c.text);
        std::string what = c.text.substr(0, 60) + " -> " + answer;
        EXPECT_EQ(answer.substr(0, c.start.size()), c.start) << what;
        EXPECT_NE(answer.find(c.part), std::string::npos) << what;
        EXPECT_TRUE(answer.ends_with(c.end)) << what;
    }
}

TEST_F(HttpServerTest, SlowClientsDoNotDelayOthers) {
    std::vector<std::unique_ptr<Client>> slow;
    for (int i = 0; i < 40; ++i) {
        slow.push_back(std::make_unique<Client>(server.port(), "GET /slow HTTP/1.1\r\nHo"));
    }
    auto before = std::chrono::steady_clock::now();
    EXPECT_NE(answerTo(request("GET", "/quick")).find("GET /quick"), std::string::npos);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    slow.front()->send("st: localhost\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(slow.front()->rest().ends_with("GET /slow"));
}

// Connections without a complete request do not lock other clients out.
TEST_F(HttpServerTest, EndsTheOldestIncompleteRequestWhenItIsFull) {
    std::vector<std::unique_ptr<Client>> slow;
    for (int i = 0; i < 200; ++i) {
        slow.push_back(std::make_unique<Client>(server.port(), "GET /slow HTTP/1.1\r\nHo"));
    }
    EXPECT_NE(answerTo(request("GET", "/quick")).find("GET /quick"), std::string::npos);
    EXPECT_EQ(slow.front()->rest(), "");
    slow.back()->send("st: localhost\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(slow.back()->rest().ends_with("GET /slow"));
}

// A byte every second keeps a connection from being idle.
TEST_F(HttpServerTest, EndsARequestWhoseHeadersTakeTooLong) {
    Client slow(server.port(), "GET / HTTP/1.1\r\nX: ");
    auto began = std::chrono::steady_clock::now();
    std::thread sender([&] {
        for (int i = 0; i < 11; ++i) {
            slow.send("x");
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    });
    EXPECT_EQ(slow.rest(), "");
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(12));
    sender.join();
}

TEST(HostRule, AcceptsOnlyNamesOfThisMachineOnLoopback) {
    struct Case {
        const char* listen;
        std::vector<std::string> allowed;
        const char* host;
        bool accepted;
    };
    const Case cases[] = {
        {"127.0.0.1:1", {}, "localhost", true},
        {"127.0.0.1:1", {}, "LocalHost.:9931", true},
        {"127.0.0.1:1", {}, "127.0.0.1:9931", true},
        {"127.0.0.1:1", {}, "[::1]:9931", true},
        {"[::1]:1", {}, "10.0.0.1", true},
        {"127.0.0.1:1", {}, "evil.example", false},
        {"127.0.0.1:1", {}, "", false},
        {"127.0.0.1:1", {}, "127.0.0.1.evil.example:9931", false},
        {"127.0.0.1:1", {}, "[evil.example", false},
        {"127.0.0.1:1", {"Host.Example"}, "host.example:9931", true},
        {"127.0.0.1:1", {"host.example"}, "evil.example", false},
        {"*:1", {}, "evil.example", true},
        {"*:1", {"host.example"}, "evil.example", false},
    };
    for (const Case& c : cases) {
        HostRule rule(parseListenAddress(c.listen), c.allowed);
        EXPECT_EQ(rule.accepts(c.host), c.accepted) << c.listen << " " << c.host;
        EXPECT_TRUE(rule.accepts(std::nullopt));
    }
    HttpServer server(parseListenAddress("127.0.0.1:0"), echo);
    std::string text = "GET / HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n\r\n";
    EXPECT_TRUE(Client(server.port(), text).rest().starts_with("HTTP/1.1 421 "));
}

TEST_F(HttpServerTest, UnreadResponsesAreLimited) {
    auto statusOfLarge = [&] { return answerTo(request("GET", "/large")).substr(9, 3); };
    {
        Client lazy(server.port(), request("GET", "/large"));
        EXPECT_TRUE(tolvane::test::eventually(std::chrono::seconds(10),
                                              [&] { return statusOfLarge() == "503"; }));
    }
    EXPECT_TRUE(tolvane::test::eventually(std::chrono::seconds(10),
                                          [&] { return statusOfLarge() == "200"; }));
}

TEST_F(HttpServerTest, ReportsWhyItCannotListen) {
    ListenAddress taken{"127.0.0.1", server.port()};
    const std::pair<ListenAddress, const char*> cases[] = {
        {taken, "Address already in use"},
        {{"192.0.2.1", 9931}, "Cannot assign requested address"},
    };
    for (const auto& [address, why] : cases) {
        try {
            HttpServer second(address, echo);
            ADD_FAILURE() << "listens on " << toString(address);
        } catch (const Error& error) {
            EXPECT_EQ(error.what(), "cannot listen on " + toString(address) + ": " + why);
        }
    }
}

TEST(ListenAddress, AcceptsItsForms) {
    const std::pair<const char*, const char*> good[] = {
        {"127.0.0.1:9931", "127.0.0.1:9931"}, {"9000", "127.0.0.1:9000"}, {"[::1]:1", "[::1]:1"},
        {"localhost:1", "127.0.0.1:1"},       {":9931", "*:9931"},        {"*:65535", "*:65535"},
        {"0.0.0.0:0", "0.0.0.0:0"},
    };
    for (const auto& [text, meaning] : good) {
        EXPECT_EQ(toString(parseListenAddress(text)), meaning);
    }
    const std::pair<const char*, const char*> bad[] = {
        {"", "the port is missing"},
        {"127.0.0.1", "the port is missing"},
        {"[::1]", "the port is missing"},
        {"::1:9931", "an IPv6 address needs brackets"},
        {"host:9931", "'host' is not a numeric address"},
        {"127.0.0.1:", "'' is not a port"},
        {"127.0.0.1:65536", "'65536' is not a port"},
        {"65536", "'65536' is not a port"},
        {"127.0.0.1:+1", "'+1' is not a port"},
        {"[127.0.0.1]:1", "'[127.0.0.1]' is not a numeric address"},
        {"127.1:1", "'127.1' is not a numeric address"},
        {"\x1b[2J:1", "'?[2J' is not a numeric address"},
    };
    for (const auto& [text, complaint] : bad) {
        try {
            parseListenAddress(text);
            ADD_FAILURE() << text << " is taken";
        } catch (const Error& error) {
            std::string_view what = error.what();
            EXPECT_NE(what.find(complaint), std::string::npos) << what;
            EXPECT_NE(what.find("'[::1]:9931'"), std::string::npos) << "no example in: " << what;
            EXPECT_EQ(error.kind(), ErrorKind::kInvalidInput);
        }
    }
}

TEST(ListenAddress, WildcardAddressHasBothFamilies) {
    HttpServer server(parseListenAddress("*:0"), echo);
    EXPECT_NE(Client(server.port(), request("GET", "/")).rest().find("200 OK"), std::string::npos);
}

}  // namespace
}  // namespace tolvane::agent
