// What each interposed call counts, call by call.
#include <sys/socket.h>

#include <cerrno>
#include <ctime>
#include <thread>

#include "system/e2e/script.h"

namespace tolvane::test {
namespace {

const std::string kReceiveCalls[] = {
    "read",        "recv",       "readv",      "recvfrom",
    "recvmsg",     "__read_chk", "__recv_chk", "__recvfrom_chk",
#ifndef __LP64__
    "__recvmsg64",
#endif
};
const std::string kSendCalls[] = {
    "write",       "send", "writev", "sendto", "sendmsg",
#ifndef __LP64__
    "__sendmsg64",
#endif
};
const std::string kOk = response("200 OK");

class ReceiveCall : public ScriptTest {};
INSTANTIATE_TEST_SUITE_P(Calls, ReceiveCall, testing::ValuesIn(kReceiveCalls));

TEST_P(ReceiveCall, StartsOneRequestPerResponseAndCountsItsBytes) {
    Measured server;
    server.segment.configure({{"a.test", {"/shop*", "*.gif"}, {"b.test"}}});
    Connection connection(*server.worker, server.listener, kPort,
                          GetParam() == "recvmsg" ? "accept4" : "accept");
    // A process knows no site before its first publication.
    connection.receive(GetParam(), get("a.test", "/early"));
    connection.transmit("write", kOk);
    connection.receive(GetParam(), get("a.test", "/shop/1.gif"));
    connection.receive(GetParam(), "its body");
    connection.transmit("write", kOk);
    connection.receive(GetParam(), get("B.TEST:80", "/other"));
    connection.transmit("write", kOk);
    shutdown(connection.client(), SHUT_WR);
    EXPECT_EQ((*server.worker)(connection.call("in " + GetParam(), "100")), good(0));
    connection.close();
    server.worker->exit();
    EXPECT_EQ(server.segment.counts().text(),
              "total: conn1 req3 in127 out57 | 0: conn1 req2 in90 out38"
              " | 0.0: req1 out19 | 0.1: req1 out19");
}

TEST_F(ReceiveCall, VectorsAreExaminedInTheirFirstBufferOnly) {
    Measured server;
    server.segment.configure({{"a.test", {}}});
    Connection connection(*server.worker, server.listener);
    const std::string request = get("a.test", "/");
    for (const std::string call : {"readv", "recvmsg"}) {
        for (const std::string layout : {"0 200", "200 0", "12 188", "0"}) {
            connection.transmit("write", kOk);
            sendAll(connection.client(), request);
            const auto reply = (*server.worker)(connection.call("in " + call, layout));
            EXPECT_EQ(reply, layout == "0" ? good(0) : good(32, request));
            if (layout == "0") connection.receive("recv", request);
        }
    }
    server.worker->exit();
    EXPECT_EQ(server.segment.counts().text(),
              "total: conn1 req8 in256 out152 | 0: conn1 req4 in128 out95");
}

class SendCall : public ScriptTest {};
INSTANTIATE_TEST_SUITE_P(Calls, SendCall, testing::ValuesIn(kSendCalls));

TEST_P(SendCall, ClassifiesTheFirstBytesOfAResponseOnly) {
    const std::string texts[] = {
        kOk,
        response("302 Found"),
        response("404 Not Found"),
        response("404 Not Found", "Tv-Status: 0\r\n"),
        "HtTp/1.1 404",
        response("503 Busy"),
        response("200 OK", "A: b\r\nTv-Status: 503\r\n"),
        // Of no class.
        "http/1.1 404 Not Found\r\n\r\n",
        "HTtP/1.1 404 Not Found\r\n\r\n",
        "HTT",
        "HTTP",
    };
    Measured server;
    server.segment.configure({{"a.test", {"/"}}});
    const std::string body = response("500 is not a status here");
    Connection connection(*server.worker, server.listener);
    connection.receive("read", get("a.test", "/"));
    connection.transmit("write", kOk);
    std::size_t sent = 0;
    for (const auto& text : texts) {
        connection.receive("read", get("a.test", "/"));
        const Reply failed{-1, EFAULT, ""};
        EXPECT_EQ((*server.worker)(connection.call("out " + GetParam(), "!")), failed);
        connection.transmit(GetParam(), text);
        connection.transmit(GetParam(), body);
        sent += text.size() + body.size();
    }
    connection.close();
    server.worker->exit();
    const std::string bytes = std::to_string(sent);
    const std::string classes = " redir1 err5 cerr3 serr2";
    EXPECT_EQ(server.segment.counts().text(), "total: conn1 req12 in384 out" +
                                                  std::to_string(kOk.size() + sent) + classes +
                                                  " | 0: conn1 req11 in352 out" + bytes + classes +
                                                  " | 0.0: req11 out" + bytes + " err5");
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
    EXPECT_EQ(server.segment.counts().text(), "total: conn1 req8 in144 out152 err2 cerr2");
}

TEST_F(SendCall, SendfileStartsAResponseThatCannotBeExamined) {
    Measured server({.environment = {"REQUEST_INTERVAL=3"}});
    const std::string file = response("404 Not Found");
    writeFile(std::string(kServerRoot) + "/htdocs/file", file);
    Connection connection(*server.worker, server.listener);
    for (const std::string call : {"sendfile", "sendfile64"}) {
        connection.receive("read", get("a.test", "/"));
        EXPECT_EQ((*server.worker)(connection.call("out " + call, hex(file))), good(26));
        EXPECT_EQ(server.segment.counts().text(), "") << "published before the third call";
    }
    (*server.worker)(connection.call("out write", "!"));  // one that fails counts as well
    EXPECT_EQ(server.segment.counts().text(), "total: conn1 req2 in64 out52");
}

class Gate : public ScriptTest {};

TEST_F(Gate, UntrackedDescriptorsReachTheRealCall) {
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
    EXPECT_EQ(server.segment.counts().text(), "total: conn1");
}

TEST_F(Gate, OnlyConfiguredSocketsAreMeasuredAndSslOnlyInBytes) {
    Measured server({.environment = {"REQUEST_INTERVAL=1", "SSL_FACTOR=startssl"},
                     .configuration = "<VirtualHost 127.0.0.1:8443>\nSSLEngine on\n"
                                      "</VirtualHost>\n"});
    const auto inWorker = [&](int port) {
        const auto reply = (*server.worker)("listen " + std::to_string(port) + " 127.0.0.1");
        return static_cast<int>(reply.result);
    };
    for (const int port : {kSslPort, kOtherPort}) {
        Connection connection(*server.worker, inWorker(port), port);
        connection.receive("read", get("a.test", "/"));
        connection.transmit("write", response("404 Not Found"));
        connection.close();
    }
    EXPECT_EQ(server.segment.counts().text(), "") << "SSL calls count towards the publication";
    server.worker->exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn2 in32 out26 drop1");
}

class ExampleSites : public ScriptTest {};

TEST_F(ExampleSites, ReplaceTheFirstThreeUntilANewerConfiguration) {
    Measured server;
    server.segment.configure({{"a.test", {"/"}, {"b.test"}}, {"c.test", {"/"}}});
    const auto request = [&](const std::string& host) {
        serve(*server.worker, server.listener, host);
    };
    const auto expectRequests = [&](const std::vector<std::uint32_t>& ofSites,
                                    std::uint32_t ofCategories) {
        const Counts counts = server.segment.counts();
        for (std::size_t s = 0; s < ofSites.size(); ++s) {
            EXPECT_EQ(counts.site[s].requests, ofSites[s]) << s;
        }
        EXPECT_EQ(counts.category[0][0].requests + counts.category[1][0].requests, ofCategories);
    };
    const auto secondPasses = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1010)); };
    request("a.test");  // the worker takes the configuration
    request("a.test");
    const auto before = std::time(nullptr);
    const long version = (*server.worker)("hard_code_web_sites").result;
    EXPECT_GE(version, before);
    EXPECT_LE(version, std::time(nullptr));
    server.segment.raiseVersion();  // still an older one
    secondPasses();
    for (const std::string host : {"www.example.com", "shop.example.com", "news.example.com",
                                   "news.example.com", "a.test", "c.test"}) {
        request(host);
    }
    expectRequests({2, 1, 2}, 1);
    request("b.test");  // a further name of the first site, which keeps it
    expectRequests({3, 1, 2}, 1);
    server.segment.config().version = static_cast<int>(version);
    server.segment.raiseVersion();
    secondPasses();
    request("shop.example.com");  // the worker takes the configuration
    for (const std::string host : {"shop.example.com", "a.test", "c.test"}) request(host);
    expectRequests({4, 3, 2}, 3);
}

class Reported : public ScriptTest {};

TEST_F(Reported, SslRequestsAreCountedThroughTheExportedEntryPoints) {
    ScriptServer server({.environment = {"SSL_FACTOR=startssl"},
                         .module = "worker",
                         .configuration = "<VirtualHost 127.0.0.1:8443>\nSSLEngine on\n"
                                          "</VirtualHost>\n"});
    const int listener = server.listen(kSslPort);
    Segment segment;
    segment.configure({{"a.test", {"/shop*"}}}, 1);
    const auto worker = server.fork(*server.parent);
    {
        // The monitor thread starts with it, and takes the configuration.
        Connection first(*worker, listener, kSslPort);
        EXPECT_TRUE(eventually(std::chrono::seconds(5),
                               [&] { return segment.counts().total.connections == 1; }));
    }
    Connection connection(*worker, listener, kSslPort);
    for (const std::string code : {"200 0", "404 0", "200 503", "302 0"}) {
        connection.receive("read", "encrypted");
        const auto fd = std::to_string(connection.fd());
        EXPECT_GE((*worker)("report_request " + fd + " a.test:443 /shop/1").result, 0);
        EXPECT_GE((*worker)("report_response " + fd + " " + code).result, 0);
        connection.transmit("write", "encrypted too");
    }
    expectCounts(segment,
                 "total: conn2 req4 in36 out52 redir1 err2 cerr1 serr1"
                 " | 0: conn1 req4 in36 out52 redir1 err2 cerr1 serr1 | 0.0: req4 out52 err2",
                 std::chrono::seconds(3));
}

}  // namespace
}  // namespace tolvane::test
