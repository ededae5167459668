// What is counted of SSL connections whose plaintext passes through a TLS library.
#include <sys/socket.h>

#include "system/e2e/fake_ssl.h"
#include "system/e2e/script.h"

namespace tolvane::test {
namespace {

const std::string kLibraries[] = {"3", "11"};
const std::string kReads[] = {"read", "read_ex", "read_early_data"};
const std::string kWrites[] = {"write", "write_ex", "write_early_data"};
const std::string kOk = response("200 OK", "Content-Length: 0\r\n");
constexpr std::chrono::seconds kPublished{5};

std::string record(const std::string& text, char kind = 'd') {
    std::string all = {kind, static_cast<char>(text.size() >> 8), static_cast<char>(text.size())};
    for (const char c : text) all += static_cast<char>(~c);
    return all;
}
const std::string kHello = record("hello", 'h');

ServerOptions options(const std::string& module, const std::string& counting = "messages") {
    return {.environment = {"REQUEST_INTERVAL=1", "SSL_FACTOR=startssl",
                            "TOLVANE_COUNTING=" + counting},
            .module = module,
            .configuration = "<VirtualHost 127.0.0.1:8443>\nSSLEngine on\n</VirtualHost>\n"};
}

// A server with one site. A worker with a monitor thread begins with a connection that
// starts the thread, which takes the configuration.
struct SslServer : ScriptServer {
    explicit SslServer(const std::string& module, const std::string& counting = "messages")
        : ScriptServer(options(module, counting)), listener(listen(kSslPort)) {
        segment.configure({{"a.test", {"/shop*"}}}, 1);
        worker = fork(*parent);
        if (module != "worker") return;
        { Connection first(*worker, listener, kSslPort); }
        eventually(kPublished, [&] { return segment.counts().total.connections == 1; });
        expected.total.connections = 1;
    }
    ~SslServer() { expectCounts(segment, expected.text(), kPublished); }

    int listener;
    Segment segment;
    std::unique_ptr<Script> worker;
    Counts expected{};
};

// A TLS object, and what the client of its connection exchanges with it.
class Tls {
  public:
    Tls(SslServer& server, Connection& connection, const std::string& library, char where)
        : server_(server), connection_(connection), where_(where) {
        object_ = command("ssl_new " + library + " " + std::to_string(connection.fd()) + " " +
                          where + " s");
        ++server.expected.total.connections;
    }

    long object() const { return object_; }
    Reply call(const std::string& name, const std::string& argument) {
        return (*server_.worker)("ssl " + name + " " + std::to_string(object_) + " " + argument);
    }

    // The client sends records. They reach the object with its next read.
    void send(const std::string& records) {
        sendAll(connection_.client(), records);
        server_.expected.total.bytesReceived += static_cast<std::uint32_t>(records.size());
        if (where_ != 'm') return;
        const Reply wire = (*server_.worker)(connection_.call("in read", "65536"));
        EXPECT_EQ(wire.data, records);
        call("feed", hex(records));
    }
    // The client gets this record.
    void expectSent(const std::string& expected) {
        if (where_ == 'm') {
            const Reply wire = call("take", "65536");
            (*server_.worker)(connection_.call("out write", hex(wire.data)));
        }
        std::string seen(expected.size(), ' ');
        recv(connection_.client(), seen.data(), seen.size(), MSG_WAITALL);
        EXPECT_EQ(seen, expected);
        server_.expected.total.bytesSent += static_cast<std::uint32_t>(expected.size());
    }
    void expectRead(const std::string& name, const std::string& text) {
        const Reply all = {static_cast<long>(text.size()), kSslErrno, text};
        EXPECT_EQ(call(name, "1000"), all) << name << where_;
    }
    void receive(const std::string& name, const std::string& text) {
        send(record(text));
        expectRead(name, text);
    }
    void transmit(const std::string& name, const std::string& text) {
        const Reply all = {static_cast<long>(text.size()), kSslErrno, ""};
        EXPECT_EQ(call(name, hex(text)), all) << name << where_;
        expectSent(record(text));
    }
    // `name`: of a call that reads the handshake. A read takes the first request too.
    void shakeHands(const std::string& name) {
        send(kHello);
        EXPECT_EQ(call(name, "0"), (Reply{1, kSslErrno, ""})) << name;
        expectSent(kHello);
    }
    // A whole exchange, expected to be counted.
    void exchange(const std::string& read, const std::string& write, const std::string& url,
                  const std::string& answer, int status) {
        const std::string request = get("a.test", url);
        receive(read, request);
        transmit(write, answer);
        expectExchange(request, answer, status);
    }
    void expectExchange(const std::string& request, const std::string& answer, int status) {
        Counts& expected = server_.expected;
        const ResultStruct before = expected;
        const int category = request.starts_with("GET /shop") ? 0 : -1;
        expected.addRequest(0, category, request.size(), answer.size(), status);
        // The totals count the wire's bytes.
        expected.total.bytesReceived = before.total.bytesReceived;
        expected.total.bytesSent = before.total.bytesSent;
        if (!seenSite_) ++expected.site[0].connections;
        seenSite_ = true;
    }
    void expectErrors(const std::string& letters) {
        EXPECT_EQ(call("errors", "1000").data, letters);
    }

  private:
    long command(const std::string& text) { return (*server_.worker)(text).result; }

    SslServer& server_;
    Connection& connection_;
    const char where_;
    bool seenSite_ = false;
    long object_;
};

class Ssl : public ScriptTest {};
INSTANTIATE_TEST_SUITE_P(Modules, Ssl, testing::Values("prefork", "worker"));

TEST_P(Ssl, EachCallCountsItsPlaintextAndLeavesTheLibrarysResults) {
    SslServer server(GetParam());
    for (const auto& library : kLibraries) {
        std::string errors;
        for (const char where : {'o', 'h', 'm'}) {
            for (std::size_t i = 0; i < 9; ++i) {
                const std::string &read = kReads[i / 3], &write = kWrites[i % 3];
                Connection connection(*server.worker, server.listener, kSslPort);
                Tls tls(server, connection, library, where);
                if (where == 'm') tls.call(read, "1"), errors += 'r';
                if (i % 3 != 2) tls.shakeHands(i % 3 == 0 ? "do_handshake" : "accept");
                const bool late = i % 3 == 2;  // the first read reads the handshake
                if (late) tls.send(kHello);
                const std::string first = get("a.test", "/shop/1");
                tls.send(record(first));
                tls.expectRead(i % 2 == 0 ? "peek" : "peek_ex", first);
                tls.expectRead(read, first);
                if (late) tls.expectSent(kHello);
                tls.transmit(write, kOk);
                tls.expectExchange(first, kOk, 200);
                // Requests in records of one read, with a second handshake between them.
                const std::string second = get("A.TEST:443", "/shop"), third = get("a.test", "/");
                tls.send(record(second) + kHello + record(third));
                tls.expectRead(read, second);
                tls.expectRead(read, third);
                tls.expectSent(kHello);
                for (const auto& request : {second, third}) {
                    const std::string missing = response("404 No", "Content-Length: 0\r\n");
                    tls.transmit(write, missing);
                    tls.expectExchange(request, missing, 404);
                }
                tls.exchange(read, write, "/", response("302 Found", "Content-Length: 0\r\n"), 302);
                if (where != 'm') shutdown(connection.client(), SHUT_WR);
                EXPECT_EQ(tls.call(read, "1000"), (Reply{-1, kSslErrno, ""}));
                tls.expectErrors(errors += 'r');
                tls.call("free", "0");
                connection.close();
            }
        }
    }
}

TEST_P(Ssl, UnansweredRequestsAreDropsAndConnectionsWithoutRequestAreNot) {
    SslServer server(GetParam());
    for (int step = 0; step < 4; ++step) {
        Connection connection(*server.worker, server.listener, kSslPort);
        Tls tls(server, connection, "3", 'h');
        if (step > 0) tls.shakeHands("accept");
        if (step > 1) tls.receive("read", get("a.test", "/shop"));
        if (step == 2) tls.expectExchange(get("a.test", "/shop"), "", 0);
        if (step == 3) {
            const std::string head = response("200 OK", "Content-Length: 50\r\n");
            const std::string body(50, '5');
            tls.transmit("write", head);
            tls.transmit("sendfile", body);
            tls.expectExchange(get("a.test", "/shop"), head + body, 200);
            tls.exchange("read", "write", "/", kOk, 200);
        }
        connection.close();
    }
}

TEST_P(Ssl, Http2IsCountedByItsFrames) {
    const auto frame = [](char type, char flags, int stream, const std::string& content) {
        return std::string{0, 0, static_cast<char>(content.size()), type, flags, 0,
                           0, 0, static_cast<char>(stream)} +
               content;
    };
    SslServer server(GetParam());
    Connection connection(*server.worker, server.listener, kSslPort);
    Tls tls(server, connection, "3", 'o');
    tls.shakeHands("do_handshake");
    tls.receive("read", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(4, 0, 0, ""));
    tls.transmit("write", frame(4, 0, 0, ""));
    for (const int stream : {1, 3}) {
        // GET, "/shop" as the path, and the authority.
        const std::string request = frame(1, 5, stream,
                                          "\x82\x04\x05/shop\x01\x06"
                                          "a.test");
        const std::string head = frame(1, 4, stream, stream == 1 ? "\x88" : "\x8d");
        const std::string body = frame(0, 1, stream, "body");
        tls.receive("read_ex", request);
        tls.transmit("write", head);
        tls.transmit("write_ex", body);
        tls.expectExchange(get("a.test", "/shop"), "", stream == 1 ? 200 : 404);
        CounterBlock& site = server.expected.site[0];
        site.bytesReceived +=
            static_cast<std::uint32_t>(request.size() - get("a.test", "/shop").size());
        site.bytesSent += static_cast<std::uint32_t>(head.size() + body.size());
        server.expected.category[0][0].bytesSent +=
            static_cast<std::uint32_t>(head.size() + body.size());
    }
    connection.close();
}

TEST_F(Ssl, ObjectsOfOtherConnectionsCountNothing) {
    SslServer server("worker");
    Script& worker = *server.worker;
    auto before = std::make_unique<Connection>(worker, server.listener, kSslPort);
    Tls old(server, *before, "3", 'h');
    Connection other(worker, server.listener, kSslPort);
    Tls of11(server, other, "11", 'h');  // of the second library, at the same time
    old.shakeHands("accept");
    of11.shakeHands("accept");
    const std::string request = get("a.test", "/shop");
    old.receive("read", request);
    of11.receive("read", request);
    of11.transmit("write", kOk);
    old.transmit("write", response("302 Found", "Content-Length: 0\r\n"));
    of11.expectExchange(request, kOk, 200);
    old.expectExchange(request, response("302 Found", "Content-Length: 0\r\n"), 302);

    // A connection to another server has the descriptor next, and then a number that was
    // never tracked.
    const int fd = before->fd();
    before->close();
    before.reset();
    for (int i = 0; i < 2; ++i) {
        const Reply pair = worker("pair");
        EXPECT_EQ(pair.result == fd, i == 0);
        const std::string own = std::to_string(pair.result);
        for (const auto& library : kLibraries) {
            const auto client = worker("ssl_new " + library + " " + own + " o c").result;
            const auto name = " " + std::to_string(client) + " ";
            worker("out write " + pair.data + " " + hex(kHello + record(request)));
            EXPECT_EQ(worker("ssl read" + name + "1000").data, request);
            EXPECT_EQ(worker("ssl write" + name + hex(request)).error, kSslErrno);
        }
        if (i == 1) break;
        worker("close " + own);
        worker("close " + pair.data);
        worker("open /opt/server/htdocs/file");  // takes the number
    }
    worker("close " + std::to_string(fd));

    // The old object is still used, in memory, while its number is another connection.
    Connection after(worker, server.listener, kSslPort);
    EXPECT_EQ(after.fd(), fd);
    const auto useOld = [&] {
        old.call("take", "1000");
        old.call("feed", hex(record(request)));
        old.expectRead("read", request);
        EXPECT_EQ(old.call("write", hex(kOk)).result, static_cast<long>(kOk.size()));
    };
    useOld();
    Tls tls(server, after, "3", 'm');
    tls.send(kHello);
    useOld();
    EXPECT_EQ(tls.call("do_handshake", "0").result, 1);
    tls.expectSent(kHello);
    useOld();
    tls.exchange("read", "write", "/shop", kOk, 200);
    useOld();
    after.close();
    other.close();
}

TEST_F(Ssl, ReportedRequestsCountOnlyWithoutAnObject) {
    SslServer server("worker");
    const auto report = [&](const Connection& connection) {
        const auto fd = std::to_string(connection.fd());
        EXPECT_GE((*server.worker)("report_request " + fd + " a.test:443 /shop").result, 0);
        EXPECT_GE((*server.worker)("report_response " + fd + " 404 0").result, 0);
    };
    Connection read(*server.worker, server.listener, kSslPort);
    Tls tls(server, read, "11", 'h');
    tls.shakeHands("do_handshake");
    tls.receive("read", get("a.test", "/shop"));
    report(read);
    tls.transmit("write", kOk);
    tls.expectExchange(get("a.test", "/shop"), kOk, 200);
    Connection unread(*server.worker, server.listener, kSslPort);
    unread.receive("read", "encrypted");
    report(unread);
    unread.transmit("write", "encrypted too");
    ++server.expected.total.connections;
    ++server.expected.site[0].connections;
    server.expected.addRequest(0, 0, 9, 13, 404);
    // The close of such a connection is a drop, as by calls.
    ++server.expected.total.droppedRequests;
    ++server.expected.site[0].droppedRequests;
    ++server.expected.category[0][0].droppedRequests;
    unread.close();
    read.close();
}

TEST_F(Ssl, ByCallsConnectionsCountAsWithoutALibrary) {
    SslServer server("prefork", "calls");
    for (const char where : {'o', 'm'}) {
        Connection connection(*server.worker, server.listener, kSslPort);
        Tls tls(server, connection, "3", where);
        tls.shakeHands("accept");
        tls.receive("read", get("a.test", "/shop"));
        tls.transmit("write", kOk);
        connection.close();
        ++server.expected.total.droppedRequests;
    }
    server.worker->exit();
}

}  // namespace
}  // namespace tolvane::test
