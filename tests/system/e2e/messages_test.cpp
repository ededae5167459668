// The distribution's own Apache when HTTP messages are counted: the counts are what the
// clients saw, whatever parts the messages arrive in.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <list>
#include <stdexcept>
#include <thread>

#include "apache_server.h"
#include "support/http_client.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

using namespace std::chrono_literals;

struct Message {
    std::string text;
    int site = -1;
    int category = -1;
};

// The length of the first response to a request, with the interim responses before it.
// Sets its status, 0 when there is none.
std::size_t responseLength(std::string_view stream, bool head, int& status) {
    std::size_t length = 0;
    status = 0;
    while (status < 200) {
        const std::string_view rest = stream.substr(length);
        const std::size_t end = rest.find("\r\n\r\n");
        if (end == std::string_view::npos) return status = 0;
        status = std::atoi(std::string(rest.substr(9, 3)).c_str());
        length += end + 4;
        if (status < 200) continue;
        const auto hasField = [&](std::string_view name) { return rest.substr(0, end).find(name); };
        if (head || status == 204 || status == 304) return length;
        const std::size_t field = hasField("\r\nContent-Length: ");
        if (field != std::string_view::npos) {
            return length + std::strtoul(rest.data() + field + 18, nullptr, 10);
        }
        if (hasField("\r\nTransfer-Encoding: chunked") == std::string_view::npos) break;
        return stream.find("\r\n0\r\n\r\n", length - 2) + 7;
    }
    return stream.size();
}

// Sends the messages on one connection, in pieces of that size, and no more. Adds to
// `counts` what was received until the server closed.
void converse(const std::vector<Message>& messages, std::size_t piece, Counts& counts) {
    const int fd = connectTo(kApachePort);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::string text;
    for (const Message& message : messages) text += message.text;
    for (std::size_t at = 0; at < text.size(); at += piece) {
        sendAll(fd, std::string_view(text).substr(at, piece));
        if (piece < text.size()) std::this_thread::sleep_for(piece == 1 ? 100us : 5ms);
    }
    shutdown(fd, SHUT_WR);
    std::string stream;
    std::vector<char> buffer(1 << 16);
    for (ssize_t n; (n = recv(fd, buffer.data(), buffer.size(), 0)) > 0;) {
        stream.append(buffer.data(), static_cast<std::size_t>(n));
    }
    close(fd);
    ++counts.total.connections;
    std::string_view rest = stream;
    int firstSite = -1;
    for (const auto& [sent, site, category] : messages) {
        int status;
        const std::size_t length = responseLength(rest, sent.starts_with("HEAD"), status);
        counts.addRequest(site, category, sent.size(), length, status);
        rest.remove_prefix(length);
        if (firstSite < 0 && site >= 0) ++counts.site[firstSite = site].connections;
    }
    EXPECT_EQ(rest, "") << "behind the last response";
}

std::string request(const std::string& line, const std::string& fields,
                    const std::string& body = "") {
    return line + " HTTP/1.1\r\n" + fields + "\r\n" + body;
}

// b.test answers /busy with 503 and closes, so it has to be the last that is answered.
const std::vector<Message> kMixed = {
    {get("a.test", "/small.html"), 0, 0},
    {request("HEAD /large.bin", "host:a.test\r\n"), 0, 1},
    {request("GET http://b.test/small.html", "Host: a.test\r\n"), 1, 0},
    {get("a.test", "/chunked"), 0},
    {get("a.test", "/large.bin"), 0, 1},
    {request("POST /missing", "Host: a.test\r\nExpect: 100-continue\r\nContent-Length: 40\r\n",
             "GET /small.html HTTP/1.1\r\nHost: b.test\r\n"),
     0},
    {request("POST /chunked", "Host: a.test\r\nTransfer-Encoding: chunked\r\n",
             "7\r\nGET / H\r\n0\r\n\r\n"),
     0},
    {request("PATCH /small.html", "Host: a.test\r\nContent-Length: 2\r\n", "{}"), 0, 0},
    {request("GET /small.html", "If-Modified-Since: Fri, 01 Jan 2038 00:00:00 GMT\r\nX-Padding: " +
                                    std::string(2000, 'x') + "\r\nHOST:www.a.test\r\n"),
     0, 0},
    {get("nowhere.test", "/small.html")},
    {get("b.test", "/busy"), 1, 0},
};

const std::string kScript = std::string(kServerRoot) + "/conf/chunked";

class Messages : public ApacheTest {
  protected:
    static Process startCounting(const std::string& configuration = "") {
        return start({"TOLVANE_COUNTING=messages"},
                     "ScriptAlias /chunked " + kScript + "\n" + configuration);
    }

    static void waitFor(const Process& server) {
        writeFile(kScript, "#!/bin/sh\ncat >/dev/null\nprintf 'Content-Type: a/b\\n\\none'\n");
        std::filesystem::permissions(kScript, std::filesystem::perms::all);
        ASSERT_TRUE(eventually(10s, [&] { return started(server); }))
            << readFile("/opt/server/logs/error_log");
    }

    static void stopAndCompare(Process& server, const Segment& segment, const Counts& expected) {
        std::this_thread::sleep_for(300ms);  // a client has a response before it is counted
        server.signal(SIGTERM);
        EXPECT_EQ(server.wait(15s), 0);
        EXPECT_EQ(segment.counts().text(), expected.text());
    }
};
INSTANTIATE_TEST_SUITE_P(Modules, Messages, testing::ValuesIn(kModules),
                         [](const auto& module) { return std::string(module.param.name); });

TEST_P(Messages, AreCountedInWhateverPartsTheyArrive) {
    Process server = startCounting();
    waitFor(server);
    Segment segment;
    segment.configure(kApacheSites, 1);
    Counts expected;
    for (const std::size_t piece : {std::size_t{1} << 20, std::size_t{700}, std::size_t{1}}) {
        converse(kMixed, piece, expected);
    }
    converse(std::vector<Message>(10, {get("a.test", "/small.html"), 0, 0}), 1 << 20, expected);
    // Two requests behind one whose response closes the connection.
    converse({{get("b.test", "/busy"), 1, 0}, {get("a.test", "/large.bin"), 0, 1}, {get("c", "/")}},
             1 << 20, expected);
    converse({}, 1, expected);
    EXPECT_EQ(expected.total.requests, 46U);
    EXPECT_EQ(expected.total.droppedRequests, 2U);
    EXPECT_EQ(expected.total.clientErrors, 6U);
    expectCounts(segment, expected.text(), 3s);
    stopAndCompare(server, segment, expected);
}

TEST_P(Messages, FollowAConfigurationWithinTwoSeconds) {
    Process server = startCounting();
    waitFor(server);
    Segment segment;
    Counts expected;
    {
        std::list<HttpConnection> open;
        for (int i = 0; i < 6; ++i) {
            open.emplace_back(kApachePort, expected)
                .exchange({.text = get("a.test", "/small.html")});
        }
        segment.configure(kApacheSites, 60);
        std::this_thread::sleep_for(2s);
        for (auto& one : open) one.exchange({get("a.test", "/small.html"), 0, 0});
    }
    // The process has served one connection of a few requests, and publishes all of it.
    if (!threaded()) expectCounts(segment, expected.text(), 1s);
    stopAndCompare(server, segment, expected);
}

// Processes start and end all the time, long before the interval does.
TEST_P(Messages, OfEndingProcessesAreCounted) {
    Process server = startCounting("MaxConnectionsPerChild 30\n");
    waitFor(server);
    Segment segment;
    segment.configure(kApacheSites, 60);
    // Without idle connections, which an ending process may close before it has read.
    const std::vector<Message> two = {
        {get("a.test", "/small.html"), 0, 0},
        {request("GET /large.bin", "Host: b.test\r\nConnection: close\r\n"), 1, 0}};
    std::atomic<bool> stop = false;
    std::vector<std::future<Counts>> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(std::async(std::launch::async, [&] {
            Counts counts;
            while (!stop) converse(two, 1 << 20, counts);
            return counts;
        }));
    }
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(500ms);
        server.signal(SIGUSR1);
    }
    std::this_thread::sleep_for(500ms);
    stop = true;
    Counts expected;
    for (auto& client : clients) expected += client.get();
    EXPECT_GT(expected.total.requests, 500U);
    stopAndCompare(server, segment, expected);
}

struct Gateway {
    const char* name;
    std::vector<std::string> command;
    const char* configuration;
};

// Each speaks HTTP/1.1 and HTTP/2 with its clients.
const Gateway kGateways[] = {
    {"haproxy",
     {"/usr/sbin/haproxy", "-db", "-q", "-f", "/opt/gateway.conf"},
     "defaults\n mode http\n timeout connect 5s\n timeout client 20s\n timeout server 20s\n"
     " http-reuse always\n"
     "listen first\n bind 127.0.0.1:8090\n server apache 127.0.0.1:8080\n"
     "listen second\n bind 127.0.0.1:8091 proto h2\n server apache 127.0.0.1:8080\n"},
    {"nginx",
     {"/usr/sbin/nginx", "-c", "/opt/gateway.conf", "-e", "/opt/gateway.log"},
     "daemon off; master_process off; pid /opt/gateway.pid;\nevents {}\n"
     "http { access_log off; client_body_temp_path /opt/t1; proxy_temp_path /opt/t2;\n"
     "fastcgi_temp_path /opt/t3; uwsgi_temp_path /opt/t4; scgi_temp_path /opt/t5;\n"
     "upstream apache { server 127.0.0.1:8080; keepalive 4; }\n"
     "proxy_http_version 1.1; proxy_set_header Connection \"\"; proxy_set_header Host $host;\n"
     "server { listen 127.0.0.1:8090; location / { proxy_pass http://apache; } }\n"
     "server { listen 127.0.0.1:8091 http2; location / { proxy_pass http://apache; } } }\n"},
};

// What a client can know of the counts behind a gateway, which chooses connections and
// writes its own heads.
std::string withoutBytes(Counts counts) {
    const auto clear = [](CounterBlock& block) {
        block.connections = block.bytesReceived = block.bytesSent = 0;
        block.openConnections = 0;
    };
    clear(counts.total);
    for (CounterBlock& site : counts.site) clear(site);
    for (auto& site : counts.category) {
        for (CategoryCounters& category : site) category.bytesSent = 0;
    }
    return counts.text();
}

bool listens(int port) {
    try {
        return close(connectTo(port)) == 0;
    } catch (const std::runtime_error&) {
        return false;
    }
}

// Requests to send through a gateway, and what they are.
struct Order {
    const char* host;
    const char* path;
    int times;
    const char* method;
    std::size_t body;
    Message counted;
    int status;
};
const Order kOrders[] = {
    {"a.test", "/small.html", 40, "GET", 0, {"", 0, 0}, 200},
    {"a.test", "/large.bin", 20, "GET", 0, {"", 0, 1}, 200},
    {"b.test", "/missing", 2, "POST", 30000, {"", 1, 0}, 404},
    {"www.a.test", "/chunked", 3, "PUT", 100, {"", 0}, 200},
    {"nowhere.test", "/small.html", 5, "HEAD", 0, {}, 200},
    {"a.test", "/small.html", 2, "PATCH", 10, {"", 0, 0}, 405},
    {"b.test", "/busy", 1, "GET", 0, {"", 1, 0}, 503},
};

void runClient(std::vector<std::string> command, const std::string& bodyOption, std::size_t body) {
    if (body != 0) {
        writeFile("/opt/body", std::string(body, 'b'));
        command.push_back(bodyOption + "/opt/body");
    }
    EXPECT_EQ(Process(command, {}).wait(25s), 0) << command.back();
}

void sendThroughGateway(const Order& order) {
    const std::string times = std::to_string(order.times);
    const std::string host = order.host;
    const std::string method = order.method;
    std::vector<std::string> command = {
        "/usr/bin/curl",
        "-sS",
        "--noproxy",
        "*",
        "-H",
        "Host: " + host,
        "http://127.0.0.1:8090" + std::string(order.path) + "?[1-" + times + "]",
        "-o",
        "/dev/null"};
    if (method == "HEAD") {
        command.emplace_back("-I");
    } else {
        command.insert(command.end(), {"-X", method});
    }
    runClient(command, "-d@", order.body);
    runClient({"/usr/bin/h2load", "-n" + times, "-c1", "-m4", "-H:authority: " + host,
               "-H:method: " + method, "http://127.0.0.1:8091" + std::string(order.path)},
              "-d", order.body);
}

TEST_P(Messages, OfGatewaysAreCounted) {
    for (const auto& [name, command, configuration] : kGateways) {
        SCOPED_TRACE(name);
        Process server = startCounting();
        waitFor(server);
        Segment segment;
        segment.configure(kApacheSites, 1);
        writeFile("/opt/gateway.conf", configuration);
        Process gateway(command, {});
        ASSERT_TRUE(eventually(10s, [] { return listens(8090) && listens(8091); }));
        Counts expected;
        for (const Order& order : kOrders) {
            sendThroughGateway(order);
            for (int i = 0; i < 2 * order.times; ++i) {
                expected.addRequest(order.counted.site, order.counted.category, 0, 0, order.status);
            }
        }
        gateway.signal(SIGTERM);  // closes its connections
        EXPECT_TRUE(eventually(
            5s, [&] { return withoutBytes(segment.counts()) == withoutBytes(expected); }))
            << withoutBytes(segment.counts()) << "\ninstead of " << withoutBytes(expected);
    }
}

}  // namespace
}  // namespace tolvane::test
