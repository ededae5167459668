// Runs one kind of call a given number of times under the preloaded shim and
// the empty calls, and prints the nanoseconds per call. scripts/costs.sh runs
// it, once as it is and once counting instructions.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "empty_calls.h"
#include "fullest_configuration.h"
#include "tolvane/segment_format.h"

using namespace tolvane;

namespace {

constexpr int kPort = 8080;
constexpr char kResponse[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
const std::string kRequest =
    std::string("GET /catalogue/2026/autumn/index.html?page=4 HTTP/1.1\r\n") +
    "Host: " + kLastHost +
    "\r\nUser-Agent: Mozilla/5.0 (X11; Linux x86_64)\r\n"
    "Accept: text/html\r\nConnection: keep-alive\r\n\r\n";
char byte[] = "x";

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "call_cost: %s\n", what);
    std::exit(1);
}

int listenOnServerPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (listen(fd, 1) != 0) fail("listen");
    return fd;
}

ConfigInfo* attachSegment() {
    std::ifstream handoff(kHandoffDirectory + std::string(kHandoffPrefix) +
                          std::to_string(getpid()));
    for (std::string line; std::getline(handoff, line);) {
        if (line.rfind("Shmid=", 0) == 0) {
            void* address = shmat(std::atoi(line.c_str() + 6), nullptr, 0);
            if (address != reinterpret_cast<void*>(-1)) return static_cast<ConfigInfo*>(address);
        }
    }
    fail("no segment: is the shim preloaded?");
}

void readText(const char* text, std::size_t length) {
    // The empty read leaves the buffer as it is: the text is there already.
    if (read(kEmptyFrom, const_cast<char*>(text), length) < 0) fail("read");
}

void writeText(const char* text, std::size_t length) {
    if (write(kEmptyFrom, text, length) < 0) fail("write");
}

struct Scenario {
    const char* name;
    void (*prepare)();
    void (*call)();
};

// A read and a write that reach the system, for comparison.
int pair[2];
void systemPair() {
    if (write(pair[0], byte, 1) != 1 || read(pair[1], byte, 1) != 1) fail("socket pair");
}

int listening;
void acceptOne() {
    accept(listening, nullptr, nullptr);
}
void startRequest() {
    acceptOne();
    readText(kRequest.data(), kRequest.size());
}

const Scenario kScenarios[] = {
    {"untracked-read", [] {}, [] { readText(byte, 1); }},
    {"read", startRequest, [] { readText(byte, 1); }},
    {"write",
     [] {
         startRequest();
         writeText(kResponse, sizeof kResponse - 1);
     },
     [] { writeText(byte, 1); }},
    {"system-pair",
     [] {
         if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) fail("socketpair");
     },
     systemPair},
    {"byte-pair", acceptOne,
     [] {
         readText(byte, 1);
         writeText(byte, 1);
     }},
    {"request-pair", acceptOne,
     [] {
         readText(kRequest.data(), kRequest.size());
         writeText(byte, 1);
     }},
    {"response-pair", acceptOne,
     [] {
         readText(byte, 1);
         writeText(kResponse, sizeof kResponse - 1);
     }},
    {"accept-close", acceptOne,
     [] {
         acceptOne();
         close(kEmptyFrom);
     }},
};

}  // namespace

// call_cost SCENARIO none|small|fullest COUNT
int main(int argc, char** argv) {
    if (argc != 4) fail("usage: call_cost SCENARIO none|small|fullest COUNT");
    listening = listenOnServerPort();
    if (std::strcmp(argv[2], "none") != 0) {
        ConfigInfo* config = attachSegment();
        std::strcmp(argv[2], "small") == 0 ? smallConfiguration(*config)
                                           : fullestConfiguration(*config);
        config->version = 1;
        // The next publication takes it.
        acceptOne();
        for (int i = std::atoi(std::getenv("REQUEST_INTERVAL")); i > 0; --i) writeText(byte, 1);
        close(kEmptyFrom);
    }
    for (const Scenario& scenario : kScenarios) {
        if (std::strcmp(scenario.name, argv[1]) != 0) continue;
        scenario.prepare();
        long count = std::atol(argv[3]);
        auto start = std::chrono::steady_clock::now();
        for (long i = 0; i < count; ++i) scenario.call();
        std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
        std::printf("%.2f\n", took.count() / static_cast<double>(count));
        return 0;
    }
    fail("no such scenario");
}
