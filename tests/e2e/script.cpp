#include "e2e/script.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace tolvane::test {
namespace {

constexpr char kControlPath[] = "/opt/server/control";

int openControls() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kControlPath);
    unlink(kControlPath);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(fd, 10);
    return fd;
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

Script::Script(int control) : control_(control), pid_(std::stoi(line())) {}

Script::~Script() {
    close(control_);
}

std::string Script::line() {
    std::string text;
    for (char c = 0;;) {
        pollfd ready{control_, POLLIN, 0};
        if (poll(&ready, 1, 20000) != 1 || recv(control_, &c, 1, 0) != 1) {
            throw std::runtime_error("the script server gives no answer");
        }
        if (c == '\n') return text;
        text += c;
    }
}

Reply Script::operator()(const std::string& command) {
    sendAll(control_, command + "\n");
    std::istringstream words(line());
    Reply reply;
    std::string data;
    words >> reply.result >> reply.error >> data;
    for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
        reply.data += static_cast<char>(std::stoi(data.substr(i, 2), nullptr, 16));
    }
    return reply;
}

// The system closes a process's descriptors after it has run the exit handlers
// and undone the semaphores.
void Script::awaitEnd() {
    char c = 0;
    pollfd ready{control_, POLLIN, 0};
    if (poll(&ready, 1, 20000) != 1 || recv(control_, &c, 1, 0) > 0) {
        throw std::runtime_error("the script server does not end");
    }
}

void Script::exit() {
    sendAll(control_, "exit\n");
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
    pollfd ready{controls_, POLLIN, 0};
    if (poll(&ready, 1, 10000) != 1) throw std::runtime_error("no script server");
    return std::make_unique<Script>(accept4(controls_, nullptr, nullptr, SOCK_CLOEXEC));
}

std::unique_ptr<Script> ScriptServer::fork(Script& from) {
    const auto child = from("fork").result;
    auto script = next();
    if (script->line() != "0 77 " || script->pid() != child) throw std::runtime_error("fork");
    return script;
}

int ScriptServer::listen(int port, const std::string& address) {
    const auto reply = (*parent)("listen " + std::to_string(port) + " " + address);
    if (reply.result < 0) throw std::runtime_error("cannot listen on " + address);
    return static_cast<int>(reply.result);
}

Connection::Connection(Script& script, int listener, int port, const std::string& call)
    : script_(script), client_(connectTo(port)) {
    const Reply reply = script_(call + " " + std::to_string(listener));
    fd_ = static_cast<int>(reply.result);
    EXPECT_EQ(reply, good(fd_));
    EXPECT_GT(fd_, 0);
}

Connection::~Connection() {
    close(client_);
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
    EXPECT_EQ(recv(client_, seen.data(), seen.size(), MSG_WAITALL),
              static_cast<ssize_t>(text.size()));
    EXPECT_EQ(seen, text);
}

Measured::Measured(const ServerOptions& options)
    : ScriptServer(options), listener(listen(kPort)), worker(fork(*parent)) {}

std::uint32_t size(const std::string& text) {
    return static_cast<std::uint32_t>(text.size());
}

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", c & 0xff);
        text += digits;
    }
    return text.empty() ? "-" : text;
}

std::string response(const std::string& status, const std::string& headers) {
    return "HTTP/1.1 " + status + "\r\n" + headers + "\r\n";
}

}  // namespace tolvane::test
