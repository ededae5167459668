// A server that makes exactly the calls that it is told, one connection per
// process, so that each of them can be examined.
//
// Started with the path of a socket (and, in HARD_LIMIT, the limit of
// descriptors that it is to believe in). Every process of the server (the first,
// and each that "fork" makes) connects to it, writes its id, and then answers a
// packet of command with one of result and errno, behind which, for a receive
// call, come the bytes read. Those of a command are written in hexadecimal; "-"
// stands for none at all, "!" for an address that cannot be read. The control connection is
// descriptor 0, which no server ever has for a client.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "system/e2e/script_ssl.h"

extern "C" {
ssize_t __read_chk(int, void*, size_t, size_t);
ssize_t __recv_chk(int, void*, size_t, size_t, int);
ssize_t __recvfrom_chk(int, void*, size_t, size_t, int, void*, socklen_t*);
#ifndef __LP64__
ssize_t __recvmsg64(int, msghdr*, int);
ssize_t __sendmsg64(int, const msghdr*, int);
#endif
ssize_t sendfile32(int, int, void*, size_t) __asm__("sendfile");
ssize_t sendfile64(int, int, void*, size_t);

// Replaces the C library's, so that a test can set a limit that no test machine
// permits.
int getrlimit64(__rlimit_resource_t resource, rlimit64* limit) {
    if (prlimit64(0, static_cast<__rlimit_resource>(resource), nullptr, limit) != 0) return -1;
    const char* hard = std::getenv("HARD_LIMIT");
    if (resource == RLIMIT_NOFILE && hard) limit->rlim_max = std::strtoull(hard, nullptr, 10);
    return 0;
}
}

std::string received;

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

namespace {

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

void talkTo(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(1);
    dup2(fd, 0);
    close(fd);
    const std::string id = std::to_string(getpid());
    send(0, id.data(), id.size(), 0);
}

// A socket bound to the port and address of the arguments; -1 when that fails.
int boundSocket(const Arguments& arguments) {
    union {
        sockaddr any;
        sockaddr_in four;
        sockaddr_in6 six;
        sockaddr_un local;
    } address{};
    const std::string& text = arguments[1];
    const auto port = htons(static_cast<std::uint16_t>(number(arguments, 0)));
    if (text == "unix") {
        // An abstract name whose first bytes read like a port and any address.
        address.local.sun_family = AF_UNIX;
        address.local.sun_path[1] = static_cast<char>(number(arguments, 0));
    } else if (inet_pton(AF_INET, text.c_str(), &address.four.sin_addr) == 1) {
        address.four.sin_family = AF_INET;
        address.four.sin_port = port;
    } else {
        address.six.sin6_family = AF_INET6;
        address.six.sin6_port = port;
        inet_pton(AF_INET6, text.c_str(), &address.six.sin6_addr);
    }
    const int fd = socket(address.any.sa_family, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, &address.any, sizeof address.local) == 0) return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

long listenOn(const Arguments& arguments) {
    const int fd = boundSocket(arguments);
    if (fd < 0) return -2;
    return listen(fd, 100) == 0 ? fd : -1;
}

// Listens on the port at that many addresses, in as many threads at the same moment.
long listenTogether(const Arguments& arguments) {
    std::atomic<int> waiting = number(arguments, 1);
    std::atomic<long> lowest = INT_MAX;
    std::vector<std::thread> threads;
    for (int i = waiting; i > 0; --i) {
        const int fd = boundSocket({arguments[0], "127.0.0." + std::to_string(i)});
        threads.emplace_back([&waiting, &lowest, fd] {
            --waiting;
            while (waiting > 0) {
            }
            if (listen(fd, 100) != 0) lowest = -1;
        });
        lowest = fd;
    }
    for (std::thread& thread : threads) thread.join();
    return lowest;
}

// `arguments`: the call, the descriptor and each buffer: its length for a
// receive call, its bytes for a send call.
long transfer(const Arguments& arguments, bool receives) {
    const int fd = number(arguments, 1);
    std::vector<std::string> texts;
    std::size_t total = 0;
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        const auto length = static_cast<std::size_t>(number(arguments, i));
        texts.push_back(receives ? std::string(length, ' ') : fromHex(arguments[i]));
        total += texts.back().size();
    }
    char* const all = endingAtGuard(total);
    std::vector<iovec> vector;
    for (char* next = all; const std::string& text : texts) {
        vector.push_back({next, text.size()});
        next = std::ranges::copy(text, next).out;
    }
    if (arguments.at(2) == "!") vector[0] = {reinterpret_cast<void*>(1), 4};
    msghdr message{};
    message.msg_iov = vector.data();
    message.msg_iovlen = vector.size();
    const int count = static_cast<int>(vector.size());
    void* const first = vector[0].iov_base;
    const std::size_t size = receives ? total : vector[0].iov_len;
    const int file = open("/opt/server/htdocs/file", O_RDONLY);
    const std::map<std::string, std::function<ssize_t()>> calls = {
        {"read", [&] { return read(fd, first, size); }},
        {"recv", [&] { return recv(fd, first, size, 0); }},
        {"readv", [&] { return readv(fd, vector.data(), count); }},
        {"recvfrom", [&] { return recvfrom(fd, first, size, 0, nullptr, nullptr); }},
        {"recvmsg", [&] { return recvmsg(fd, &message, 0); }},
#ifndef __LP64__
        {"__recvmsg64", [&] { return __recvmsg64(fd, &message, 0); }},
        {"__sendmsg64", [&] { return __sendmsg64(fd, &message, 0); }},
#endif
        {"__read_chk", [&] { return __read_chk(fd, first, size, size); }},
        {"__recv_chk", [&] { return __recv_chk(fd, first, size, size, 0); }},
        {"__recvfrom_chk",
         [&] { return __recvfrom_chk(fd, first, size, size, 0, nullptr, nullptr); }},
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
    if (receives && result > 0) received.assign(all, static_cast<std::size_t>(result));
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

// A child in this process's memory that closes the descriptor and ends.
long vforkBriefly(const Arguments& arguments) {
    const int fd = number(arguments, 0);
    const pid_t child = vfork();
    if (child == 0) {
        close(fd);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    return child;
}

// As on a system without the call.
long denyCloseRange(const Arguments&) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {4, program};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
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

// Whether the dynamic linker's error text outlives the first use of other calls.
long keepErrorText(const Arguments&) {
    if (dlerror() != nullptr) return 1;
    dlopen("/no/such/library", RTLD_NOW);
    readv(-1, nullptr, 0);
    sendmsg(-1, nullptr, 0);
    closefrom(1 << 20);
    const char* text = dlerror();
    return text != nullptr && std::strstr(text, "/no/such/library") != nullptr ? 0 : 2;
}

long hardCodeSites(const Arguments&) {
    return exported<int()>("hardCodeWebSites")();
}

// A signal handler closes the listening socket when a connection arrives, before
// accept has returned.
long acceptWhileClosed(const Arguments& a) {
    static volatile int listener;
    listener = number(a, 0);
    std::signal(SIGIO, [](int) { close(listener); });
    fcntl(listener, F_SETOWN, getpid());
    fcntl(listener, F_SETFL, fcntl(listener, F_GETFL) | O_ASYNC);
    const int fd = accept(listener, nullptr, nullptr);
    std::signal(SIGIO, SIG_IGN);
    return fcntl(listener, F_GETFD) == -1 ? fd : -2;
}

const std::map<std::string, std::function<long(const Arguments&)>> kCommands = {
    {"listen", listenOn},
    {"in", [](auto& a) { return transfer(a, true); }},
    {"out", [](auto& a) { return transfer(a, false); }},
    {"accept", [](auto& a) { return accept(number(a, 0), nullptr, nullptr); }},
    {"accept_while_closed", acceptWhileClosed},
    {"accept4", [](auto& a) { return accept4(number(a, 0), nullptr, nullptr, 0); }},
    {"open", [](auto& a) { return open(a[0].c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); }},
    {"close", [](auto& a) { return close(number(a, 0)); }},
    {"dup", [](auto& a) { return dup(number(a, 0)); }},
    {"dup2", [](auto& a) { return dup2(number(a, 0), number(a, 1)); }},
    {"dup3", [](auto& a) { return dup3(number(a, 0), number(a, 1), O_CLOEXEC); }},
    {"close_range",
     [](auto& a) {
         return close_range(static_cast<unsigned>(number(a, 0)),
                            static_cast<unsigned>(number(a, 1)), number(a, 2));
     }},
    {"closefrom", [](auto& a) { return closefrom(number(a, 0)), 0; }},
    {"fclose", [](auto& a) { return fclose(fdopen(number(a, 0), "r+")); }},
    {"deny_close_range", denyCloseRange},
    {"listen_together", listenTogether},
    {"vfork_briefly", vforkBriefly},
    {"fork", forkAnother},
    {"fork_briefly", forkBriefly},
    {"hard_code_web_sites", hardCodeSites},
    {"keep_error_text", keepErrorText},
    {"report_request", reportRequest},
    {"report_response", reportResponse},
    {"ssl_new", newSslObject},
    {"ssl", callSsl},
    {"pair", makePair},
    {"exit", [](auto& a) -> long { std::exit(number(a, 0)); }},
};

std::string answer(const std::string& command) {
    std::istringstream words(command);
    std::string name;
    words >> name;
    Arguments arguments;
    for (std::string word; words >> word;) arguments.push_back(word);
    received.clear();
    errno = 77;
    const long result = kCommands.at(name)(arguments);
    const int error = errno;
    return std::to_string(result) + " " + std::to_string(error) + "\n" + received;
}

}  // namespace

int main(int, char** argv) {
    std::signal(SIGCHLD, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    controlPath = argv[1];
    talkTo(controlPath);
    std::string command(1 << 16, ' ');
    for (ssize_t n; (n = recv(0, command.data(), command.size(), 0)) > 0;) {
        const std::string reply = answer(command.substr(0, static_cast<std::size_t>(n)));
        send(0, reply.data(), reply.size(), 0);
    }
    _exit(0);
}
