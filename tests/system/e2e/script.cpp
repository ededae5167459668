#include "system/e2e/script.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace tolvane::test {
namespace {

constexpr char kControlPath[] = "/opt/server/control";

int openControls() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kControlPath);
    unlink(kControlPath);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd, 10) != 0) {
        throw std::runtime_error(kControlPath);
    }
    return fd;
}

bool readable(int fd) {
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, 20000) == 1;
}

Process startServer(const ServerOptions& options) {
    const std::string root = kServerRoot;
    writeFile(root + "/logs/.tolvane_info", options.module + "\n");
    writeFile(root + "/conf/httpd.conf", "Listen " + options.listen + "\n" + options.configuration);
    auto environment = options.environment;
    environment.insert(environment.end(), {"LD_PRELOAD=" TOLVANE_LIBRARY, "WEB_SERVER=apache",
                                           "WEB_SERVER_ROOT=" + root});
    return Process({SCRIPT_SERVER, kControlPath}, environment);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Reply& reply) {
    return out << reply.result << " (errno " << reply.error << ") \"" << reply.data << '"';
}

Reply good(long result, const std::string& data) {
    return {result, 77, data};
}

Script::Script(int control) : control_(control), pid_(std::stoi(answer())) {}

Script::~Script() {
    close(control_);
}

std::string Script::answer() {
    std::string packet(1 << 16, ' ');
    if (!readable(control_)) throw std::runtime_error("the script server hangs");
    const ssize_t n = recv(control_, packet.data(), packet.size(), 0);
    return packet.substr(0, n < 0 ? 0 : static_cast<std::size_t>(n));
}

Reply Script::operator()(const std::string& command) {
    sendAll(control_, command);
    const std::string text = answer();
    if (text.empty()) throw std::runtime_error("the script server has ended");
    Reply reply;
    std::istringstream(text) >> reply.result >> reply.error;
    reply.data = text.substr(text.find('\n') + 1);
    return reply;
}

// The system closes a process's descriptors after it has run the exit handlers
// and undone the semaphores.
void Script::awaitEnd() {
    if (!answer().empty()) throw std::runtime_error("the script server does not end");
}

void Script::exit() {
    sendAll(control_, "exit");
    awaitEnd();
}

void Script::kill() {
    ::kill(pid_, SIGKILL);
    awaitEnd();
}

ScriptServer::ScriptServer(const ServerOptions& options)
    : controls_(openControls()), process_(startServer(options)), parent(next()) {
    if (options.pidFile) {
        writeFile(std::string(kServerRoot) + "/logs/httpd.pid",
                  std::to_string(parent->pid()) + "\n");
    }
}

ScriptServer::~ScriptServer() {
    close(controls_);
}

std::unique_ptr<Script> ScriptServer::next() {
    if (!readable(controls_)) throw std::runtime_error("no script server");
    return std::make_unique<Script>(accept4(controls_, nullptr, nullptr, SOCK_CLOEXEC));
}

std::unique_ptr<Script> ScriptServer::fork(Script& from) {
    const auto child = from("fork").result;
    auto script = next();
    if (script->answer() != "0 77\n" || script->pid() != child) throw std::runtime_error("fork");
    return script;
}

// The port may still belong to a process of an earlier server that is ending:
// the system closes its control connection before its listening socket.
int ScriptServer::listen(int port, const std::string& address) {
    Reply reply;
    const bool listening = eventually(std::chrono::seconds(5), [&] {
        reply = (*parent)("listen " + std::to_string(port) + " " + address);
        return reply.result >= 0;
    });
    if (!listening) {
        throw std::runtime_error("cannot listen on " + address + ": " + strerror(reply.error));
    }
    return static_cast<int>(reply.result);
}

Connection::Connection(Script& script, int listener, int port, const std::string& call,
                       const std::string& address)
    : script_(script), client_(connectTo(port, address)) {
    const Reply reply = script_(call + " " + std::to_string(listener));
    fd_ = static_cast<int>(reply.result);
    EXPECT_EQ(reply, good(fd_));
    EXPECT_GT(fd_, 0);
}

Connection::~Connection() {
    ::close(client_);
}

void Connection::close() {
    EXPECT_EQ(script_(call("close", "")), good(0));
}

std::string Connection::call(const std::string& name, const std::string& arguments) const {
    return name + " " + std::to_string(fd_) + " " + arguments;
}

void Connection::receive(const std::string& name, const std::string& text) {
    sendAll(client_, text);
    const auto size = std::to_string(text.size());
    EXPECT_EQ(script_(call("in " + name, size)), good(static_cast<long>(text.size()), text));
}

void Connection::transmit(const std::string& name, const std::string& text) {
    EXPECT_EQ(script_(call("out " + name, hex(text))), good(static_cast<long>(text.size())));
    std::string seen(text.size(), ' ');
    recv(client_, seen.data(), seen.size(), MSG_WAITALL);
    EXPECT_EQ(seen, text);
}

Measured::Measured(const ServerOptions& options)
    : ScriptServer(options), listener(listen(kPort)), worker(fork(*parent)) {}

void ScriptTest::serve(Script& worker, int listener, const std::string& host) {
    Connection connection(worker, listener);
    connection.receive("read", get(host, "/"));
    connection.transmit("write", response("200 OK"));
    connection.close();
}

std::string hex(const std::string& bytes) {
    std::ostringstream text;
    text << std::hex << std::setfill('0');
    for (const char c : bytes) text << std::setw(2) << (c & 0xff);
    return bytes.empty() ? "-" : text.str();
}

std::string response(const std::string& status, const std::string& headers) {
    return "HTTP/1.1 " + status + "\r\n" + headers + "\r\n";
}

}  // namespace tolvane::test
