// A server with threads that each serve many connections: reads what is there,
// answers with one small page. Ends normally at SIGTERM.
//
//   many_connections_server PORT THREADS
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

void serve(int epoll) {
    const std::string response =
        "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: 1000\r\n\r\n" +
        std::string(1000, 'p');
    std::vector<char> request(8192);
    for (;;) {
        epoll_event events[64];
        const int n = epoll_wait(epoll, events, 64, -1);
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            const ssize_t got = read(fd, request.data(), request.size());
            if (got <= 0 || write(fd, response.data(), response.size()) < 0) close(fd);
        }
    }
}

int listenOn(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (listen(fd, 511) != 0) fail("listen");
    return fd;
}

[[noreturn]] void acceptFor(const std::vector<int>& epolls, int listener) {
    for (std::size_t turn = 0;; ++turn) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) fail("accept4");
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        if (epoll_ctl(epolls[turn % epolls.size()], EPOLL_CTL_ADD, fd, &event) != 0) {
            fail("epoll_ctl");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int threads = argc == 3 ? std::atoi(argv[2]) : 0;
    if (threads < 1) {
        std::fprintf(stderr, "usage: many_connections_server PORT THREADS\n");
        return 2;
    }
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    const int listener = listenOn(std::atoi(argv[1]));
    std::vector<int> epolls;
    for (int i = 0; i < threads; ++i) {
        epolls.push_back(epoll_create1(EPOLL_CLOEXEC));
        std::thread(serve, epolls.back()).detach();
    }
    std::thread([&] { acceptFor(epolls, listener); }).detach();
    int number = 0;
    sigwait(&stop, &number);
    std::exit(0);
}
