// Sends the same requests to several servers in short turns, so that what
// disturbs the machine disturbs all of them, and prints what each turn took:
// rows of measure, server, round and value, separated by tabs.
//
//   cpu     nanoseconds of the server's processes per request
//   rate    requests per second
//   p99     microseconds, the 99th percentile of a turn's response times
//   pss, dirty   KB per process, once at the end
//
// In each round every server has one turn, in an order drawn anew.
//
//   interleaved_load requests=FILE rounds=N turn=REQUESTS [connections=8]
//       [in-flight=8] [per-connection=48] [warm-up=REQUESTS] server=NAME:PORT:PID...
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "closed_loop.h"
#include "request_mix.h"
#include "server_processes.h"

using namespace tolvane::bench;

namespace {

using Clock = std::chrono::steady_clock;

// After its last response a server still writes its log or counts; then it
// sleeps, and its CPU time is up to date.
constexpr useconds_t kSettle = 2000;

struct Server {
    std::string name;
    ServerProcesses processes;
    std::unique_ptr<ClosedLoop> client;
};

struct Options {
    std::map<std::string, std::string> values = {
        {"connections", "8"}, {"in-flight", "8"}, {"per-connection", "48"}, {"warm-up", "2000"}};
    std::vector<std::string> servers;

    const std::string& text(const std::string& name) const {
        auto found = values.find(name);
        if (found == values.end()) throw std::runtime_error("missing: " + name + "=");
        return found->second;
    }
    int number(const std::string& name) const {
        const int value = std::atoi(text(name).c_str());
        if (value < 0) throw std::runtime_error(name + " has to be a number, and not below 0");
        return value;
    }
};

Options readOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const std::size_t equals = argument.find('=');
        if (equals == std::string::npos) throw std::runtime_error("what is " + argument + "?");
        const std::string name = argument.substr(0, equals);
        const std::string value = argument.substr(equals + 1);
        if (name == "server") {
            options.servers.push_back(value);
        } else {
            options.values[name] = value;
        }
    }
    return options;
}

Server makeServer(const std::string& text, const Load& load) {
    const std::size_t pid = text.rfind(':');
    const std::size_t port = pid == std::string::npos ? pid : text.rfind(':', pid - 1);
    if (port == std::string::npos) throw std::runtime_error(text + " is not NAME:PORT:PID");
    auto client = std::make_unique<ClosedLoop>(std::atoi(text.c_str() + port + 1), load);
    return {text.substr(0, port), ServerProcesses(std::atoi(text.c_str() + pid + 1)),
            std::move(client)};
}

void print(const char* measure, const std::string& server, int round, double value) {
    std::printf("%s\t%s\t%d\t%.6g\n", measure, server.c_str(), round, value);
}

struct Turn {
    double cpu;   // nanoseconds per request
    double rate;  // requests per second
    double p99;   // microseconds
};

Turn takeTurn(Server& server, int requests) {
    const double before = server.processes.cpuTime();
    const auto start = Clock::now();
    std::vector<double> took = server.client->run(requests);
    const std::chrono::duration<double> seconds = Clock::now() - start;
    usleep(kSettle);
    const double used = server.processes.cpuTime() - before;
    const auto percentile = took.begin() + static_cast<std::ptrdiff_t>(took.size() * 99 / 100);
    std::nth_element(took.begin(), percentile, took.end());
    return {used / requests, requests / seconds.count(), *percentile};
}

void playRounds(std::vector<Server>& servers, int rounds, int requests) {
    std::vector<std::size_t> order(servers.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::vector<Turn> turns(servers.size());
    std::mt19937 random(1);
    for (int round = 0; round < rounds; ++round) {
        std::shuffle(order.begin(), order.end(), random);
        for (const std::size_t i : order) turns[i] = takeTurn(servers[i], requests);
        for (std::size_t i = 0; i < servers.size(); ++i) {
            print("cpu", servers[i].name, round, turns[i].cpu);
            print("rate", servers[i].name, round, turns[i].rate);
            print("p99", servers[i].name, round, turns[i].p99);
        }
    }
}

void measure(const Options& options) {
    const int perConnection = options.number("per-connection");
    const Load load = {readRequestMix(options.text("requests"), perConnection > 1),
                       options.number("connections"), options.number("in-flight"), perConnection};
    std::vector<Server> servers;
    for (const std::string& text : options.servers) servers.push_back(makeServer(text, load));
    for (Server& server : servers) {
        server.client->run(options.number("warm-up"));
        usleep(kSettle);
    }
    playRounds(servers, options.number("rounds"), options.number("turn"));
    for (const Server& server : servers) {
        const Memory memory = server.processes.memoryPerProcess();
        print("pss", server.name, 0, memory.proportional);
        print("dirty", server.name, 0, memory.privateDirty);
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        measure(readOptions(argc, argv));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "interleaved_load: %s\n", error.what());
        return 1;
    }
}
