// A server that makes exactly the calls that it is told, one connection per
// process, so that each of them can be examined.
//
// Started with the path of a socket (and, in HARD_LIMIT, the limit of
// descriptors that it is to believe in). Every process of the server (the first,
// and each that "fork" makes) connects to it, writes its id, and then answers a
// line of command with a line of result, errno and, for a receive call, the
// bytes read. Bytes are written in hexadecimal; "-" stands for none at all, "!"
// for an address that cannot be read. The control connection is descriptor 0,
// which no server ever has for a client.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
ssize_t __read_chk(int, void*, size_t, size_t);
ssize_t __recv_chk(int, void*, size_t, size_t, int);
ssize_t __recvfrom_chk(int, void*, size_t, size_t, int, void*, socklen_t*);
ssize_t sendfile32(int, int, void*, size_t) __asm__("sendfile");
ssize_t sendfile64(int, int, void*, size_t);

// Stand before the C library's, so that a test can set a limit that no test
// machine permits.
int getrlimit64(__rlimit_resource_t resource, rlimit64* limit) {
    if (prlimit64(0, static_cast<__rlimit_resource>(resource), nullptr, limit) != 0) return -1;
    const char* hard = std::getenv("HARD_LIMIT");
    if (resource == RLIMIT_NOFILE && hard) limit->rlim_max = std::strtoull(hard, nullptr, 10);
    return 0;
}
}

namespace {

using Arguments = std::vector<std::string>;

std::string received;  // by the last receive call
std::string controlPath;

int number(const Arguments& arguments, std::size_t index) {
    return index < arguments.size() ? std::atoi(arguments[index].c_str()) : 0;
}

// Memory that ends where the next byte cannot be touched: a scan that leaves
// the bytes of a call ends the server.
char* endingAtGuard(std::size_t size) {
    static constexpr std::size_t kRoom = 1 << 20;
    static char* const end = [] {
        void* area = mmap(nullptr, kRoom + 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        mprotect(area, kRoom, PROT_READ | PROT_WRITE);
        return static_cast<char*>(area) + kRoom;
    }();
    return end - size;
}

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string toHex(const std::string& bytes) {
    std::string hex;
    for (const char c : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        hex += kDigits[(c >> 4) & 15];
        hex += kDigits[c & 15];
    }
    return hex;
}

void talkTo(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(1);
    dup2(fd, 0);
    close(fd);
    const std::string id = std::to_string(getpid()) + "\n";
    send(0, id.data(), id.size(), 0);
}

// An abstract name whose first bytes read like a port and any address.
long listenLocally(int port) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    address.sun_path[1] = static_cast<char>(port);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -2;
    return listen(fd, 100) == 0 ? fd : -1;
}

long listenOn(const Arguments& arguments) {
    const std::string text = arguments.size() > 1 ? arguments[1] : "127.0.0.1";
    if (text == "unix") return listenLocally(number(arguments, 0));
    const bool six = text.find(':') != std::string::npos;
    const int fd = socket(six ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto port = htons(static_cast<std::uint16_t>(number(arguments, 0)));
    sockaddr_in6 address6{};
    address6.sin6_family = AF_INET6;
    address6.sin6_port = port;
    inet_pton(AF_INET6, text.c_str(), &address6.sin6_addr);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = port;
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    const int bound = six ? bind(fd, reinterpret_cast<sockaddr*>(&address6), sizeof address6)
                          : bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    if (bound != 0) return -2;
    return listen(fd, 100) == 0 ? fd : -1;
}

// `arguments`: the call, the descriptor and the length of each buffer.
long receive(const Arguments& arguments) {
    const int fd = number(arguments, 1);
    std::size_t size = 0;
    std::vector<iovec> vector;
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        size += static_cast<std::size_t>(number(arguments, i));
    }
    char* const buffer = endingAtGuard(size);
    char* next = buffer;
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        vector.push_back({next, static_cast<std::size_t>(number(arguments, i))});
        next += vector.back().iov_len;
    }
    msghdr message{};
    message.msg_iov = vector.data();
    message.msg_iovlen = vector.size();
    const int count = static_cast<int>(vector.size());
    const std::map<std::string, std::function<ssize_t()>> calls = {
        {"read", [&] { return read(fd, buffer, size); }},
        {"recv", [&] { return recv(fd, buffer, size, 0); }},
        {"readv", [&] { return readv(fd, vector.data(), count); }},
        {"recvfrom", [&] { return recvfrom(fd, buffer, size, 0, nullptr, nullptr); }},
        {"recvmsg", [&] { return recvmsg(fd, &message, 0); }},
        {"__read_chk", [&] { return __read_chk(fd, buffer, size, size); }},
        {"__recv_chk", [&] { return __recv_chk(fd, buffer, size, size, 0); }},
        {"__recvfrom_chk",
         [&] { return __recvfrom_chk(fd, buffer, size, size, 0, nullptr, nullptr); }},
    };
    const auto& call = calls.at(arguments[0]);
    errno = 77;
    const ssize_t result = call();
    const int error = errno;
    received.assign(buffer, result > 0 ? static_cast<std::size_t>(result) : 0);
    errno = error;
    return result;
}

// `arguments`: the call, the descriptor and the bytes of each buffer.
long transmit(const Arguments& arguments) {
    const int fd = number(arguments, 1);
    std::vector<iovec> vector;
    std::string all;
    for (std::size_t i = 2; i < arguments.size(); ++i) all += fromHex(arguments[i]);
    char* buffer = endingAtGuard(all.size());
    std::memcpy(buffer, all.data(), all.size());
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        const bool bad = arguments[i] == "!";
        vector.push_back(
            {bad ? reinterpret_cast<void*>(1) : buffer, bad ? 4 : fromHex(arguments[i]).size()});
        buffer += bad ? 0 : vector.back().iov_len;
    }
    msghdr message{};
    message.msg_iov = vector.data();
    message.msg_iovlen = vector.size();
    const auto [first, size] = vector.at(0);
    const int count = static_cast<int>(vector.size());
    const int file = open("/opt/server/htdocs/file", O_RDONLY);
    const std::map<std::string, std::function<ssize_t()>> calls = {
        {"write", [&] { return write(fd, first, size); }},
        {"send", [&] { return send(fd, first, size, 0); }},
        {"writev", [&] { return writev(fd, vector.data(), count); }},
        {"sendto", [&] { return sendto(fd, first, size, 0, nullptr, 0); }},
        {"sendmsg", [&] { return sendmsg(fd, &message, 0); }},
        {"sendfile", [&] { return sendfile32(fd, file, nullptr, size); }},
        {"sendfile64", [&] { return sendfile64(fd, file, nullptr, size); }},
    };
    const auto& call = calls.at(arguments[0]);
    errno = 77;
    const ssize_t result = call();
    const int error = errno;
    if (file >= 0) close(file);
    errno = error;
    return result;
}

long forkAnother(const Arguments&) {
    const pid_t child = fork();
    if (child == 0) talkTo(controlPath);
    return child;
}

// A child that ends at once, after it has closed a descriptor when one is given.
long forkBriefly(const Arguments& arguments) {
    const pid_t child = fork();
    if (child == 0) {
        if (!arguments.empty()) close(number(arguments, 0));
        std::exit(0);
    }
    waitpid(child, nullptr, 0);
    return child;
}

// The entry points for SSL connections, found as an outside caller finds them.
template <class Function>
Function* exported(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

long reportRequest(const Arguments& a) {
    const int slot = exported<int(int, int)>("GETINDEX")(3, number(a, 0));
    exported<void(int, const char*, int, const char*, int, int)>("updateRequestResults")(
        slot, a[1].data(), static_cast<int>(a[1].size()), a[2].data(),
        static_cast<int>(a[2].size()), number(a, 0));
    return slot;
}

long reportResponse(const Arguments& a) {
    const int slot = exported<int(int, int)>("GETINDEX")(3, number(a, 0));
    exported<void(int, int, int)>("updateResponseResults")(slot, number(a, 1), number(a, 2));
    return slot;
}

const std::map<std::string, std::function<long(const Arguments&)>> kCommands = {
    {"listen", listenOn},
    {"in", receive},
    {"out", transmit},
    {"accept", [](auto& a) { return accept(number(a, 0), nullptr, nullptr); }},
    {"accept4", [](auto& a) { return accept4(number(a, 0), nullptr, nullptr, 0); }},
    {"open", [](auto& a) { return open(a[0].c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); }},
    {"close", [](auto& a) { return close(number(a, 0)); }},
    {"dup2", [](auto& a) { return dup2(number(a, 0), number(a, 1)); }},
    {"dup3", [](auto& a) { return dup3(number(a, 0), number(a, 1), O_CLOEXEC); }},
    {"close_range",
     [](auto& a) {
         return close_range(static_cast<unsigned>(number(a, 0)),
                            static_cast<unsigned>(number(a, 1)), number(a, 2));
     }},
    {"closefrom", [](auto& a) { return closefrom(number(a, 0)), 0; }},
    {"fork", forkAnother},
    {"fork_briefly", forkBriefly},
    {"report_request", reportRequest},
    {"report_response", reportResponse},
    {"exit", [](auto& a) -> long { std::exit(number(a, 0)); }},
};

std::string answer(const std::string& line) {
    std::istringstream words(line);
    std::string name;
    words >> name;
    Arguments arguments;
    for (std::string word; words >> word;) arguments.push_back(word);
    received.clear();
    errno = 77;
    const long result = kCommands.at(name)(arguments);
    const int error = errno;
    return std::to_string(result) + " " + std::to_string(error) + " " + toHex(received) + "\n";
}

}  // namespace

int main(int, char** argv) {
    std::signal(SIGCHLD, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    controlPath = argv[1];
    talkTo(controlPath);
    std::string line;
    char c = 0;
    while (recv(0, &c, 1, 0) == 1) {
        if (c != '\n') {
            line += c;
            continue;
        }
        const std::string reply = answer(line);
        send(0, reply.data(), reply.size(), 0);
        line.clear();
    }
    _exit(0);
}
