// The test's end of the script server.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/http_client.h"
#include "support/process.h"
#include "support/sandbox.h"
#include "support/segment.h"

namespace tolvane::test {

inline constexpr int kPort = 8080;
inline constexpr int kOtherPort = 8081;  // the server listens there, unconfigured
inline constexpr int kSslPort = 8443;

struct Reply {
    long result = 0;
    int error = 0;
    std::string data;

    bool operator==(const Reply&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Reply& reply);

// The reply of a call that succeeded and so left errno alone.
Reply good(long result, const std::string& data = "");

// One process of the server.
class Script {
  public:
    explicit Script(int control);
    ~Script();
    Script(const Script&) = delete;
    Script& operator=(const Script&) = delete;

    Reply operator()(const std::string& command);
    pid_t pid() const { return pid_; }
    void exit();  // returns when the process has ended
    void kill();

  private:
    friend class ScriptServer;
    std::string answer();  // empty when the process has ended
    void awaitEnd();

    int control_;
    pid_t pid_;
};

struct ServerOptions {
    std::vector<std::string> environment = {"REQUEST_INTERVAL=1"};
    std::string module = "prefork";
    std::string listen = "127.0.0.1:8080";
    std::string configuration{};  // further lines
    bool pidFile = true;
};

class ScriptServer {
  public:
    explicit ScriptServer(const ServerOptions& options = {});
    ~ScriptServer();

    std::unique_ptr<Script> fork(Script& from);
    int listen(int port, const std::string& address = "127.0.0.1");

  private:
    std::unique_ptr<Script> next();

    int controls_;
    Process process_;

  public:
    std::unique_ptr<Script> parent;
};

// A connection that one process of the server has accepted.
class Connection {
  public:
    Connection(Script& script, int listener, int port = kPort, const std::string& call = "accept",
               const std::string& address = "127.0.0.1");
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Each checks that the server's call and the client agree on what passed.
    void receive(const std::string& call, const std::string& text);
    void transmit(const std::string& call, const std::string& text);
    void close();
    std::string call(const std::string& name, const std::string& arguments) const;
    int fd() const { return fd_; }
    int client() const { return client_; }

  private:
    Script& script_;
    int client_;
    int fd_;
};

// A server that measures, with its first worker.
struct Measured : ScriptServer {
    explicit Measured(const ServerOptions& options = {});

    int listener;
    Segment segment;
    std::unique_ptr<Script> worker;
};

class ScriptTest : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override { resetSandbox(); }

    // One request on a new connection, answered by one write. With an interval of 1
    // the worker publishes it at once and takes a newer configuration.
    static void serve(Script& worker, int listener, const std::string& host = "a.test");
};

std::string hex(const std::string& bytes);
std::string response(const std::string& status, const std::string& headers = "");

}  // namespace tolvane::test
