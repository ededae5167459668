// What each interposed call counts, call by call.
#include <sys/socket.h>

#include <cerrno>

#include "e2e/script.h"

namespace tolvane::test {
namespace {

const std::string kReceiveCalls[] = {"read",    "recv",       "readv",      "recvfrom",
                                     "recvmsg", "__read_chk", "__recv_chk", "__recvfrom_chk"};
const std::string kSendCalls[] = {"write", "send", "writev", "sendto", "sendmsg"};
const std::string kOk = response("200 OK");

class ReceiveCall : public ScriptTest {};
INSTANTIATE_TEST_SUITE_P(Calls, ReceiveCall, testing::ValuesIn(kReceiveCalls));

TEST_P(ReceiveCall, StartsOneRequestPerResponseAndCountsItsBytes) {
    Measured server;
    server.segment.configure({{"a.test", {"b.test"}, {"/shop*", "*.gif"}}});
    const std::string early = get("a.test", "/early");
    const std::string shop = get("a.test", "/shop/1.gif");
    const std::string other = get("B.TEST:80", "/other");
    {
        Connection connection(*server.worker, server.listener, kPort,
                              GetParam() == "recvmsg" ? "accept4" : "accept");
        // A process knows no site before its first publication.
        connection.receive(GetParam(), early);
        connection.transmit("write", kOk);
        connection.receive(GetParam(), shop);
        connection.receive(GetParam(), "its body");
        connection.transmit("write", kOk);
        connection.receive(GetParam(), other);
        connection.transmit("write", kOk);
        shutdown(connection.client(), SHUT_WR);
        EXPECT_EQ((*server.worker)(connection.call("in " + GetParam(), "100")), good(0));
        EXPECT_EQ((*server.worker)(connection.call("close", "")), good(0));
    }
    server.worker->exit();
    Counts expected;
    expected.site[0].connections = 1;
    expected.site[0].requests = 2;
    expected.site[0].bytesSent = 2 * size(kOk);
    expected.site[0].bytesReceived = size(shop) + size("its body") + size(other);
    expected.total = expected.site[0];
    expected.total.requests += 1;
    expected.total.bytesSent += size(kOk);
    expected.total.bytesReceived += size(early);
    for (int c : {0, 1}) {
        expected.category[0][c].requests = 1;
        expected.category[0][c].bytesSent = size(kOk);
    }
    EXPECT_EQ(server.segment.counts().text(), expected.text());
}

TEST_F(ReceiveCall, VectorsAreExaminedInTheirFirstBufferOnly) {
    Measured server;
    server.segment.configure({{"a.test", {}, {}}});
    Connection connection(*server.worker, server.listener);
    const std::string request = get("a.test", "/");
    std::uint32_t requests = 0;
    std::uint32_t ofSite = 0;
    for (const std::string call : {"readv", "recvmsg"}) {
        for (const std::string layout : {"0 200", "200 0", "12 188", "0"}) {
            connection.transmit("write", kOk);
            sendAll(connection.client(), request);
            const auto reply = (*server.worker)(connection.call("in " + call, layout));
            EXPECT_EQ(reply, good(layout == "0" ? 0 : size(request), layout == "0" ? "" : request));
            requests += layout != "0";
            ofSite += layout == "200 0";
            if (layout == "0") connection.receive("recv", request), ++requests, ++ofSite;
        }
    }
    server.worker->exit();
    const Counts counts = server.segment.counts();
    EXPECT_EQ(counts.total.requests, requests);
    EXPECT_EQ(counts.total.bytesReceived, requests * size(request));
    EXPECT_EQ(counts.site[0].requests, ofSite);
    EXPECT_EQ(counts.site[0].bytesReceived, ofSite * size(request));
}

class SendCall : public ScriptTest {};
INSTANTIATE_TEST_SUITE_P(Calls, SendCall, testing::ValuesIn(kSendCalls));

TEST_P(SendCall, ClassifiesTheFirstBytesOfAResponseOnly) {
    const struct {
        std::string text;
        int statusClass;
    } cases[] = {
        {kOk, 2},
        {response("302 Found"), 3},
        {response("404 Not Found"), 4},
        {response("503 Busy"), 5},
        {response("200 OK", "A: b\r\nTv-Status: 503\r\n"), 5},
        {response("404 Not Found", "Tv-Status: 0\r\n"), 4},
        {"HtTp/1.1 404", 4},
        {"http/1.1 404 Not Found\r\n\r\n", 0},
        {"HTtP/1.1 404 Not Found\r\n\r\n", 0},
        {"HTT", 0},
        {"HTTP", 0},
    };
    Measured server;
    server.segment.configure({{"a.test", {}, {"/"}}});
    const std::string request = get("a.test", "/");
    const std::string body = response("500 is not a status here");
    CounterBlock expected{};
    Connection connection(*server.worker, server.listener);
    connection.receive("read", request);
    connection.transmit("write", kOk);
    const Counts before = server.segment.counts();
    for (const auto& [text, statusClass] : cases) {
        connection.receive("read", request);
        const Reply failed{-1, EFAULT, ""};
        EXPECT_EQ((*server.worker)(connection.call("out " + GetParam(), "!")), failed);
        connection.transmit(GetParam(), text);
        connection.transmit(GetParam(), body);
        ++expected.requests;
        expected.bytesReceived += size(request);
        expected.bytesSent += size(text) + size(body);
        expected.redirects += statusClass == 3;
        expected.clientErrors += statusClass == 4;
        expected.serverErrors += statusClass == 5;
        expected.errors += statusClass >= 4;
    }
    (*server.worker)(connection.call("close", ""));
    server.worker->exit();
    Counts sum = before;
    Counts step;
    step.total = step.site[0] = expected;
    step.site[0].connections = 1;
    step.category[0][0].requests = expected.requests;
    step.category[0][0].bytesSent = expected.bytesSent;
    step.category[0][0].errors = expected.errors;
    sum += step;
    EXPECT_EQ(server.segment.counts().text(), sum.text());
}

TEST_F(SendCall, VectorsAreExaminedInTheirFirstBufferOnly) {
    Measured server;
    Connection connection(*server.worker, server.listener);
    const std::string missing = response("404 Not Found");
    for (const std::string call : {"writev", "sendmsg"}) {
        for (const auto& layout : {"- " + hex(missing), hex("HT") + " " + hex("TP/1.1 404"),
                                   hex("HTTP/1.1 ") + " " + hex("404"), hex(missing) + " -"}) {
            connection.receive("read", "GET / HTTP/1.0\r\n\r\n");
            EXPECT_GT((*server.worker)(connection.call("out " + call, layout)).result, 0);
        }
    }
    server.worker->exit();
    const auto total = server.segment.counts().total;
    EXPECT_EQ(total.requests, 8u);
    EXPECT_EQ(total.clientErrors, 2u);
    EXPECT_EQ(total.bytesSent, 4 * size(missing) + 4 * size("HTTP/1.1 404"));
}

TEST_F(SendCall, SendfileStartsAResponseThatCannotBeExamined) {
    Measured server({.environment = {"REQUEST_INTERVAL=3"}});
    const std::string file = response("404 Not Found");
    writeFile(std::string(kServerRoot) + "/htdocs/file", file);
    Connection connection(*server.worker, server.listener);
    for (const std::string call : {"sendfile", "sendfile64"}) {
        connection.receive("read", get("a.test", "/"));
        EXPECT_EQ((*server.worker)(connection.call("out " + call, hex(file))), good(size(file)));
        EXPECT_EQ(server.segment.counts().text(), "") << "published before the third call";
    }
    (*server.worker)(connection.call("out write", "!"));  // one that fails counts as well
    Counts expected;
    expected.total.connections = 1;
    expected.total.requests = 2;
    expected.total.bytesReceived = 2 * size(get("a.test", "/"));
    expected.total.bytesSent = 2 * size(file);
    EXPECT_EQ(server.segment.counts().text(), expected.text());
}

class Gate : public ScriptTest {};

TEST_F(Gate, DescriptorsThatAreNotTrackedGoStraightToTheCall) {
    Measured server;
    Script& worker = *server.worker;
    const Reply bad{-1, EBADF, ""};
    writeFile(std::string(kServerRoot) + "/htdocs/file", "text");
    const auto file = worker("open /opt/server/htdocs/file").result;
    for (const std::string fd : {"-1", "-2147483648", "2000000", "2147483647"}) {
        for (const auto& call : kReceiveCalls) {
            EXPECT_EQ(worker("in " + call + " " + fd + " 10"), bad) << call << " " << fd;
        }
        for (const auto& call : kSendCalls) {
            EXPECT_EQ(worker("out " + call + " " + fd + " 41424344"), bad) << call << " " << fd;
        }
        EXPECT_EQ(worker("close " + fd), bad) << fd;
        EXPECT_EQ(worker("accept " + fd), bad) << fd;
        EXPECT_EQ(worker("dup2 0 " + fd), bad) << fd;
        EXPECT_EQ(worker("out sendfile " + fd + " 41"), bad) << fd;
    }
    EXPECT_EQ(worker("in read " + std::to_string(file) + " 4"), good(4, "text"));
    EXPECT_EQ(worker("out write " + std::to_string(file) + " 41"), good(1));
    { Connection connection(worker, server.listener); }
    worker.exit();
    EXPECT_EQ(server.segment.counts().text(), "total connections=1\n");
}

TEST_F(Gate, OnlyConfiguredSocketsAreMeasuredAndSslOnlyInBytes) {
    Measured server({.environment = {"REQUEST_INTERVAL=1", "SSL_FACTOR=startssl"},
                     .configuration = "<VirtualHost 127.0.0.1:8443>\nSSLEngine on\n"
                                      "</VirtualHost>\n"});
    const auto inWorker = [&](int port) {
        const auto reply = (*server.worker)("listen " + std::to_string(port));
        return static_cast<int>(reply.result);
    };
    for (const int port : {kSslPort, kOtherPort}) {
        Connection connection(*server.worker, inWorker(port), port);
        connection.receive("read", get("a.test", "/"));
        connection.transmit("write", response("404 Not Found"));
        (*server.worker)(connection.call("close", ""));
    }
    EXPECT_EQ(server.segment.counts().text(), "") << "SSL calls count towards the publication";
    server.worker->exit();
    Counts expected;
    expected.total.connections = 2;
    expected.total.bytesReceived = size(get("a.test", "/"));
    expected.total.bytesSent = size(response("404 Not Found"));
    expected.total.droppedRequests = 1;
    EXPECT_EQ(server.segment.counts().text(), expected.text());
}

class Closing : public ScriptTest {};

std::string replaced(std::string command, char letter, long fd) {
    for (std::size_t at; (at = command.find(letter)) != std::string::npos;) {
        command.replace(at, 1, std::to_string(fd));
    }
    return command;
}

TEST_F(Closing, WhateverClosesAConnectionEndsItOnce) {
    Measured server;
    Script& worker = *server.worker;
    const auto other = worker("open /dev/null").result;
    std::uint32_t closed = 0;
    const std::string request = get("a.test", "/");
    for (const std::string closer : {"close F", "dup2 N F", "dup3 N F", "close_range F F",
                                     "closefrom F", "close_range F 2147483647"}) {
        Connection connection(worker, server.listener);
        connection.receive("read", request);
        EXPECT_GE(worker(replaced(replaced(closer, 'F', connection.fd()), 'N', other)).result, 0)
            << closer;
        worker(connection.call("out write", hex(kOk)));  // no longer that connection
        worker(connection.call("close", ""));
        ++closed;
    }
    worker.exit();
    Counts expected;
    expected.total.connections = expected.total.requests = closed;
    expected.total.droppedRequests = closed;
    expected.total.bytesReceived = closed * size(request);
    EXPECT_EQ(server.segment.counts().text(), expected.text());
}

TEST_F(Closing, CallsThatLeaveTheConnectionOpenDoNotEndIt) {
    Measured server;
    Script& worker = *server.worker;
    Connection connection(worker, server.listener);
    connection.receive("read", get("a.test", "/"));
    for (const std::string call : {"dup2 F F", "dup3 F F", "dup2 1999 F", "dup3 1999 F",
                                   "close_range F F 4", "close_range F 0"}) {
        worker(replaced(call, 'F', connection.fd()));
    }
    connection.transmit("write", kOk);
    connection.receive("read", get("a.test", "/"));
    connection.transmit("write", kOk);
    worker(connection.call("close", ""));
    worker.exit();
    const auto total = server.segment.counts().total;
    EXPECT_EQ(total.requests, 2u);
    EXPECT_EQ(total.bytesSent, 2 * size(kOk));
    EXPECT_EQ(total.droppedRequests, 0u);
}

TEST_F(Closing, AChildThatClosesAnInheritedConnectionCountsNothing) {
    Measured server({.environment = {"REQUEST_INTERVAL=100"}});
    Script& worker = *server.worker;
    Connection connection(worker, server.listener);
    connection.receive("read", get("a.test", "/"));
    worker("fork_briefly " + std::to_string(connection.fd()));
    worker("fork_briefly");
    EXPECT_EQ(server.segment.counts().text(), "");
    connection.transmit("write", kOk);
    worker(connection.call("close", ""));
    worker.exit();
    Counts expected;
    expected.total.connections = expected.total.requests = 1;
    expected.total.bytesReceived = size(get("a.test", "/"));
    expected.total.bytesSent = size(kOk);
    EXPECT_EQ(server.segment.counts().text(), expected.text());
}

class Reported : public ScriptTest {};

TEST_F(Reported, SslRequestsAreCountedThroughTheExportedEntryPoints) {
    ScriptServer server({.environment = {"SSL_FACTOR=startssl"},
                         .module = "worker",
                         .configuration = "<VirtualHost 127.0.0.1:8443>\nSSLEngine on\n"
                                          "</VirtualHost>\n"});
    const int listener = server.listen(kSslPort);
    Segment segment;
    segment.configure({{"a.test", {}, {"/shop*"}}}, 1);
    const auto worker = server.fork(*server.parent);
    {
        // The monitor thread starts with it, and takes the configuration.
        Connection first(*worker, listener, kSslPort);
        EXPECT_TRUE(eventually(std::chrono::seconds(5),
                               [&] { return segment.counts().total.connections == 1; }));
    }
    Connection connection(*worker, listener, kSslPort);
    Counts expected;
    for (const std::string code : {"200 0", "404 0", "200 503", "302 0"}) {
        connection.receive("read", "encrypted");
        const auto fd = std::to_string(connection.fd());
        EXPECT_GE((*worker)("report_request " + fd + " a.test:443 /shop/1").result, 0);
        EXPECT_GE((*worker)("report_response " + fd + " " + code).result, 0);
        connection.transmit("write", "encrypted too");
    }
    auto& site = expected.site[0];
    site.connections = site.redirects = site.clientErrors = site.serverErrors = 1;
    site.requests = 4;
    site.errors = 2;
    site.bytesReceived = 4 * size("encrypted");
    site.bytesSent = 4 * size("encrypted too");
    expected.total = site;
    expected.total.connections = 2;
    expected.category[0][0].requests = 4;
    expected.category[0][0].errors = 2;
    expected.category[0][0].bytesSent = site.bytesSent;
    expectCounts(segment, expected, std::chrono::seconds(3));
}

}  // namespace
}  // namespace tolvane::test
