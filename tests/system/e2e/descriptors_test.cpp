// Which descriptors are connections and listening sockets, while the server
// closes, duplicates and inherits them.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "system/e2e/script.h"

namespace tolvane::test {
namespace {

const std::string kOk = response("200 OK");

class Closing : public ScriptTest {};

std::string replaced(std::string command, char letter, long fd) {
    for (std::size_t at; (at = command.find(letter)) != std::string::npos;) {
        command.replace(at, 1, std::to_string(fd));
    }
    return command;
}

TEST_F(Closing, EveryCallThatClosesAConnectionEndsItOnce) {
    Measured server;
    Script& worker = *server.worker;
    const auto other = worker("open /dev/null").result;
    for (const std::string closer : {"close F", "dup2 N F", "dup3 N F", "close_range F F",
                                     "closefrom F", "close_range F 2147483647", "fclose F"}) {
        Connection connection(worker, server.listener);
        connection.receive("read", get("a.test", "/"));
        EXPECT_GE(worker(replaced(replaced(closer, 'F', connection.fd()), 'N', other)).result, 0)
            << closer;
        worker("open /dev/null");  // takes the number, where it is free
        EXPECT_EQ(worker(connection.call("out write", hex(kOk))), good(19)) << closer;
        worker(connection.call("close", ""));
    }
    worker.exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn7 req7 in224 drop7");
}

TEST_F(Closing, CallsThatLeaveTheConnectionOpenDoNotEndIt) {
    Measured server;
    Script& worker = *server.worker;
    Connection connection(worker, server.listener);
    connection.receive("read", get("a.test", "/"));
    for (const std::string call :
         {"dup2 F F", "dup3 F F", "dup2 1999 F", "dup3 1999 F", "close_range F F 4",
          "close_range F 0", "vfork_briefly F", "deny_close_range", "close_range F F"}) {
        worker(replaced(call, 'F', connection.fd()));
    }
    connection.transmit("write", kOk);
    connection.receive("read", get("a.test", "/"));
    connection.transmit("write", kOk);
    connection.close();
    worker.exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn1 req2 in64 out38");
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
    connection.close();
    worker.exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn1 req1 in32 out19");
}

class Listening : public ScriptTest {};

// A connection to the abstract name that the server listens on as "PORT unix".
int connectLocally(int port) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    address.sun_path[1] = static_cast<char>(port);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
}

// A daemon of the server, as for CGI, closes a listening socket, and a socket of
// its own gets the number.
TEST_F(Listening, SocketWithTheNumberOfAClosedOneIsAnotherSocket) {
    Measured server;
    const std::string listener = std::to_string(server.listener);
    const auto listenAgain = [&](Script& process, const std::string& socket) {
        EXPECT_EQ(process("close " + listener), good(0));
        EXPECT_EQ(process("listen " + socket), good(server.listener));
    };
    {
        const auto daemon = server.fork(*server.parent);
        listenAgain(*daemon, "5 unix");
        const int client = connectLocally(5);
        const long fd = (*daemon)("accept " + listener).result;
        sendAll(client, get("a.test", "/"));
        EXPECT_GT((*daemon)("in read " + std::to_string(fd) + " 100").result, 0);
        (*daemon)("close " + std::to_string(fd));
        listenAgain(*daemon, "8081 127.0.0.1");
        Connection connection(*daemon, server.listener, kOtherPort);
        connection.receive("read", get("a.test", "/"));
        close(client);
        daemon->exit();
    }
    EXPECT_EQ(server.segment.counts().text(), "total: conn1") << "only that of the other port";
    {
        // A range close in a process without connections; listen() never gets the new number.
        const auto daemon = server.fork(*server.parent);
        const auto other = std::to_string((*daemon)("listen 8081 127.0.0.1").result);
        EXPECT_EQ((*daemon)("close_range " + listener + " " + listener + " 0"), good(0));
        EXPECT_EQ((*daemon)("dup " + other), good(server.listener));
        Connection connection(*daemon, server.listener, kOtherPort);
        connection.receive("read", get("a.test", "/"));
        daemon->exit();
    }
    EXPECT_EQ(server.segment.counts().text(), "total: conn2") << "only that of the other port";

    // The process that still has the socket, and a vforked child that closed it.
    EXPECT_GT((*server.worker)("vfork_briefly " + listener).result, 0);
    serve(*server.worker, server.listener);
    server.worker->exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn3 req1 in32 out19");
}

TEST_F(Listening, SocketsAreNotLimitedInNumber) {
    Measured server({.listen = "8080"});
    int last = 0;
    for (int i = 2; i < 40; ++i) last = server.listen(kPort, "127.0.0." + std::to_string(i));
    server.listen(kSslPort);
    const auto worker = server.fork(*server.parent);
    serve(*worker, server.listener);
    Connection connection(*worker, last, kPort, "accept", "127.0.0.39");
    connection.receive("read", get("a.test", "/"));
    connection.transmit("write", kOk);
    worker->exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn2 req2 in64 out38");
    EXPECT_EQ(readFile(kLogFile).find("No room"), std::string::npos);
}

TEST_F(Listening, SocketMayBeClosedByASignalHandlerDuringAccept) {
    Measured server;
    Script& worker = *server.worker;
    auto client = std::async(std::launch::async, [] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // accept waits by then
        return connectTo(kPort);
    });
    const auto reply = worker("accept_while_closed " + std::to_string(server.listener));
    ASSERT_GT(reply.result, 0);
    const std::string fd = std::to_string(reply.result);
    sendAll(client.get(), get("a.test", "/"));
    EXPECT_EQ(worker("in read " + fd + " 100").result, 32);
    EXPECT_EQ(worker("close " + fd).result, 0);
    worker.exit();
    EXPECT_EQ(server.segment.counts().text(), "total: conn1 req1 in32 drop1");
}

TEST_F(Listening, ThreadsThatListenAtTheSameMomentStartTheMeasurementOnce) {
    for (int i = 0; i < 10; ++i) {
        resetSandbox();
        ScriptServer server({.listen = "8080"});
        const auto reply = (*server.parent)("listen_together 8080 8");
        ASSERT_GT(reply.result, 0);
        const auto worker = server.fork(*server.parent);
        serve(*worker, static_cast<int>(reply.result));
        worker->exit();
        EXPECT_EQ(Segment().counts().text(), "total: conn1 req1 in32 out19");
    }
}

}  // namespace
}  // namespace tolvane::test
