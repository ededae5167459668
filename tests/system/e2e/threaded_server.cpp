// A threaded server: any thread accepts and serves, with all nine calls in
// turn. Arguments: port, number of threads, number of threads that fork
// children meanwhile, number of worker processes (0: the first process serves).
// A URL "/404..." is answered with that status, "/drop..." by closing the
// connection. Ends normally at SIGTERM.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

// Replaces the C library's: the counts are published thousands of times a second,
// whatever the configured interval.
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) {
    usleep(100);
    return 0;
}

namespace {

std::atomic<unsigned> turn{0};

// Each of the calls in turn; the last one gets the buffer in two halves.
ssize_t receive(int fd, char* buffer, std::size_t size) {
    const iovec halves[] = {{buffer, size / 2}, {buffer + size / 2, size - size / 2}};
    const unsigned call = turn++ % 3;
    return call == 0   ? read(fd, buffer, size)
           : call == 1 ? recv(fd, buffer, size, 0)
                       : readv(fd, halves, 2);
}

// The same; a blocking call takes all of the text.
bool transmit(int fd, std::string text) {
    const std::size_t half = (text.size() + 1) / 2;
    const iovec halves[] = {{text.data(), half}, {text.data() + half, text.size() - half}};
    const unsigned call = turn++ % 3;
    const ssize_t sent = call == 0   ? write(fd, text.data(), text.size())
                         : call == 1 ? send(fd, text.data(), text.size(), 0)
                                     : writev(fd, halves, 2);
    return sent == static_cast<ssize_t>(text.size());
}

void serve(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::string request;
    char buffer[4096];
    for (ssize_t n; (n = receive(fd, buffer, sizeof buffer)) > 0;) {
        request.append(buffer, static_cast<std::size_t>(n));
        if (request.find("\r\n\r\n") == std::string::npos) continue;
        if (request.starts_with("GET /drop")) break;
        const std::string status = request.substr(request.find('/') + 1, 3);
        if (!transmit(fd, "HTTP/1.1 " + status + " x\r\nContent-Length: 1000\r\n\r\n")) break;
        if (!transmit(fd, std::string(1000, 'b'))) break;
        request.clear();
    }
    close(fd);
}

int listenOn(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
    if (listen(fd, 500) != 0) std::abort();
    return fd;
}

// What a CGI child or a piped log does with what it inherited. The data stay
// where they are, for the parent.
[[noreturn]] void beChild(unsigned kind) {
    char byte;
    for (int fd = 3; fd < 64; ++fd) {
        recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        write(fd, &byte, 0);
        if (kind % 2) close(fd);
    }
    if (kind % 3) _exit(0);
    char* const nothing[] = {nullptr};
    execle("/bin/true", "true", nullptr, nothing);
    _exit(1);
}

void forkForEver() {
    for (unsigned kind = 0;; ++kind) {
        const pid_t child = fork();
        if (child == 0) beChild(kind);
        int status = 0;
        for (int waited = 0; waitpid(child, &status, WNOHANG) == 0; ++waited) {
            if (waited > 5000) std::fputs("a forked child hangs\n", stderr), std::abort();
            usleep(1000);
        }
        if (status != 0) std::fputs("a forked child failed\n", stderr), std::abort();
    }
}

void serveUntilStopped(int listener, int threads, int forkers, const sigset_t& stop) {
    for (int i = 0; i < threads; ++i) {
        std::thread([=] {
            for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) serve(fd);
        }).detach();
    }
    for (int i = 0; i < forkers; ++i) std::thread(forkForEver).detach();
    int number = 0;
    sigwait(&stop, &number);
}

}  // namespace

int main(int, char** argv) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const int listener = listenOn(std::atoi(argv[1]));
    const int processes = std::atoi(argv[4]);
    std::vector<pid_t> workers;
    for (int i = 0; i < processes; ++i) {
        workers.push_back(fork());
        if (workers.back() == 0) break;
    }
    if (workers.empty() || workers.back() == 0) {
        serveUntilStopped(listener, std::atoi(argv[2]), std::atoi(argv[3]), stop);
    } else {
        std::signal(SIGCHLD, SIG_IGN);  // one that is killed is gone at once
        serveUntilStopped(listener, 0, 0, stop);
        for (const pid_t worker : workers) kill(worker, SIGTERM);
        for (const pid_t worker : workers) waitpid(worker, nullptr, 0);
    }
    std::exit(0);
}
