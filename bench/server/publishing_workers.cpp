// Worker processes that serve requests on the shim's books only and publish
// them into a few shared records, as those of a prefork server do. Prints rows
// of measure, variant, round and value, separated by tabs; the variants are the
// numbers of shared records, and "0" for workers that publish nothing.
//
//   cpu    nanoseconds of CPU per publication and what goes before it
//   rate   publications per second
//
//   publishing_workers WORKERS WORK ROUNDS MILLISECONDS RECORDS...
//
// WORK is the nanoseconds of other work that a worker does before each
// publication; 0 makes them publish back to back.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>
#include <vector>

#include "fullest_configuration.h"
#include "shim_utils/accounting/accounting.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/process_memory.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/publication/semaphores.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

using namespace tolvane;

namespace {

constexpr int kFd = 1;
constexpr int kRequestsPerPublication = 5;  // the shim's own default
const std::string kRequest = std::string("GET /shop/1 HTTP/1.1\r\nHost: ") + kLastHost + "\r\n\r\n";
constexpr char kResponse[] = "HTTP/1.1 200 OK\r\n\r\n";

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// What the workers and the process that started them share.
struct Shared {
    std::atomic<bool> stopped;
    std::atomic<long> publications;
    std::atomic<long> cpuTime;  // nanoseconds
};

// A pipe whose readers wait until its last writing end is closed.
class Gate {
  public:
    Gate() {
        if (pipe(ends_) != 0) fail("pipe");
    }
    ~Gate() { close(ends_[0]); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    void open() const { close(ends_[1]); }
    void waitUntilOpen() const {
        close(ends_[1]);
        char byte;
        if (read(ends_[0], &byte, 1) != 0) fail("pipe");
    }

  private:
    int ends_[2];
};

struct Plan {
    int workers;
    long workLoops;
    int records;  // 0: nothing is published
    int milliseconds;
};

template <typename T>
T* shareMemory(std::size_t bytes) {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) fail("mmap");
    return static_cast<T*>(memory);
}

long cpuTime() {
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * 1'000'000'000L + time.tv_nsec;
}

void work(long loops) {
    for (long i = 0; i < loops; ++i) asm volatile("" : : "r"(i));
}

// How many loops of work take `nanoseconds` of CPU.
long loopsFor(long nanoseconds) {
    constexpr long kLoops = 10'000'000;
    const long start = cpuTime();
    work(kLoops);
    return kLoops * nanoseconds / std::max(1L, cpuTime() - start);
}

void serveRequests(Connection& connection) {
    for (int i = 0; i < kRequestsPerPublication; ++i) {
        countReceived(connection, static_cast<ssize_t>(kRequest.size()),
                      {kRequest.data(), kRequest.size()});
        countSent(connection, sizeof kResponse - 1, {kResponse, sizeof kResponse - 1});
    }
}

[[noreturn]] void beWorker(Shared& shared, const Plan& plan, int index, const Gate& gate) {
    bucketNumber = plan.records > 0 ? index % plan.records : 0;
    Connection connection = {descriptors[kFd], slotAt(0)};
    gate.waitUntilOpen();
    const long before = cpuTime();
    long publications = 0;
    for (; !shared.stopped.load(std::memory_order_relaxed); ++publications) {
        work(plan.workLoops);
        serveRequests(connection);
        if (plan.records > 0) writeResult();
    }
    shared.cpuTime += cpuTime() - before;
    shared.publications += publications;
    _exit(0);
}

void runWorkers(const Plan& plan, int round, Shared& shared) {
    using Clock = std::chrono::steady_clock;
    new (&shared) Shared{};
    Gate gate;
    std::vector<pid_t> workers;
    for (int i = 0; i < plan.workers; ++i) {
        const pid_t worker = fork();
        if (worker < 0) fail("fork");
        if (worker == 0) beWorker(shared, plan, i, gate);
        workers.push_back(worker);
    }
    gate.open();
    const auto start = Clock::now();
    usleep(static_cast<useconds_t>(plan.milliseconds) * 1000);
    shared.stopped = true;
    const std::chrono::duration<double> seconds = Clock::now() - start;
    for (const pid_t worker : workers) waitpid(worker, nullptr, 0);
    const auto publications = static_cast<double>(std::max(1L, shared.publications.load()));
    std::printf("cpu\t%d\t%d\t%.6g\n", plan.records, round,
                static_cast<double>(shared.cpuTime.load()) / publications);
    std::printf("rate\t%d\t%d\t%.6g\n", plan.records, round, publications / seconds.count());
}

void prepareShim(int records) {
    webServerType = kApacheProcesses;
    maxSockets = tableSize = kFd + 1;
    descriptors = static_cast<DescriptorState*>(allocateZeroed(2 * sizeof(DescriptorState)));
    auto* segment = shareMemory<char>(segmentSize(static_cast<std::size_t>(records)));
    shmConfig = reinterpret_cast<ConfigInfo*>(segment);
    shmPtr = reinterpret_cast<ResultStruct*>(segment + kConfigSize);
    if (descriptors == nullptr || createResultStruct(webServerType) != 1 ||
        !createSemaphores(records)) {
        fail("the shim's tables");
    }
    smallConfiguration(*shmConfig);
    shmConfig->version = 1;
    copyConfiguration();
    countAccepted(kFd, kPlain);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 6) {
        std::fprintf(stderr,
                     "usage: publishing_workers WORKERS WORK ROUNDS MILLISECONDS RECORDS...\n");
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // a forked child has nothing to write again
    std::vector<int> records;
    for (int i = 5; i < argc; ++i) records.push_back(std::atoi(argv[i]));
    const int most = std::max(1, *std::max_element(records.begin(), records.end()));
    prepareShim(most);
    auto* shared = shareMemory<Shared>(sizeof(Shared));
    const long loops = loopsFor(std::atol(argv[2]));
    for (int round = 0; round < std::atoi(argv[3]); ++round) {
        for (const int count : records) {
            runWorkers({std::atoi(argv[1]), loops, count, std::atoi(argv[4])}, round, *shared);
        }
        std::rotate(records.begin(), records.begin() + 1, records.end());
    }
    for (int i = 0; i < most; ++i) removeSemaphore(semaphoreOf(i));
}
