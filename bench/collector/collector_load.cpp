// What the collector takes of the machine: runs `tolvane serve` beside many
// servers that publish all the time, and scrapes it.
//
//   collector_load PROGRAM SEGMENTS RECORDS SECONDS SITES CATEGORIES
//
// Prints figures: processor time as a share of one core, memory of its own, and
// what ten scrapes take. To be run in namespaces of its own.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "http_client/connection.h"
#include "tolvane/segment_format.h"

using namespace tolvane;
using Clock = std::chrono::steady_clock;

namespace {

struct Shape {
    int records, sites, categories;
};

void require(bool good, const char* what) {
    if (!good) throw std::runtime_error(what);
}

void change(int semaphore, short units) {
    sembuf operation = {0, units, SEM_UNDO};
    semop(semaphore, &operation, 1);
}

void publish(ResultStruct& record, const Shape& shape) {
    change(record.semaphoreId, -1);
    record.total.requests += 10;
    record.total.bytesSent += 100000;
    for (int s = 0; s < shape.sites; ++s) {
        ++record.site[s].requests;
        for (int c = 0; c < shape.categories; ++c) {
            ++record.category[s][c].requests;
            record.category[s][c].responseTimeSum = record.category[s][c].responseTimeSum + 0.01;
        }
    }
    record.totalDirty = record.sitesDirty = record.categoriesDirty = 1;
    change(record.semaphoreId, 1);
}

// A server that publishes into each of its records five times a second.
[[noreturn]] void serve(int number, const Shape& shape) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    auto records = static_cast<std::size_t>(shape.records);
    int shmid = shmget(IPC_PRIVATE, segmentSize(records), IPC_CREAT | 0777);
    auto* config = static_cast<ConfigInfo*>(shmat(shmid, nullptr, 0));
    auto* record = reinterpret_cast<ResultStruct*>(config + 1);
    config->version = kVersionCreated;
    config->parentPid = getpid();
    for (int i = 0; i < shape.records; ++i) {
        record[i].semaphoreId = semget(IPC_PRIVATE, 1, IPC_CREAT | 0777);
        sembuf raise = {0, 1, 0};
        semop(record[i].semaphoreId, &raise, 1);
    }
    std::ofstream(std::string(kHandoffDirectory) + kHandoffPrefix + std::to_string(getpid()))
        << "Listen=10.0.0.1:" << 8000 + number << "\nShmid=" << shmid
        << "\nServer_Type=APACHE\nStructures=" << shape.records << "\n";
    for (;;) {
        for (int i = 0; i < shape.records; ++i) publish(record[i], shape);
        usleep(200000);
    }
}

void writeSites(const char* path, const Shape& shape) {
    std::ofstream file(path);
    for (int s = 0; s < shape.sites; ++s) {
        file << "[[site]]\nname = \"site-" << s << ".example\"\n";
        for (int c = 0; c < shape.categories; ++c) {
            file << "[[site.category]]\nlabel = \"category " << c << "\"\nurls = [\"/" << c
                 << "/*\"]\n";
        }
    }
}

double processorSeconds(pid_t pid) {
    double sum = 0;
    // Of all its threads, in nanoseconds.
    std::string list = "ls /proc/" + std::to_string(pid) + "/task";
    FILE* tasks = popen(list.c_str(), "r");
    char task[32];
    while (fscanf(tasks, "%31s", task) == 1) {
        std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + task + "/schedstat");
        double time = 0;
        file >> time;
        sum += time / 1e9;
    }
    pclose(tasks);
    return sum;
}

long residentKilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word) {
        long value = 0;
        if (word == "RssAnon:" && status >> value) return value;
    }
    return 0;
}

// Milliseconds from the request to the last byte; `bytes` is the answer's size.
double scrape(int port, std::size_t& bytes) {
    auto began = Clock::now();
    int fd = tolvane::http_client::connectTo(port);
    tolvane::http_client::sendAll(fd,
                                  "GET /metrics HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
    static char buffer[1 << 16];
    bytes = 0;
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;)
        bytes += static_cast<std::size_t>(n);
    close(fd);
    return std::chrono::duration<double, std::milli>(Clock::now() - began).count();
}

void measure(const char* program, int segments, int seconds, const Shape& shape) {
    static constexpr char kSites[] = "/opt/sites.toml";
    writeSites(kSites, shape);
    for (int i = 0; i < segments; ++i) {
        if (fork() == 0) serve(i, shape);
    }
    sleep(1);
    pid_t collector = fork();
    if (collector == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        execl(program, program, "serve", "--interval", "1", "--config", kSites, nullptr);
        _exit(127);
    }
    sleep(4);
    double before = processorSeconds(collector);
    auto began = Clock::now();
    double slowest = 0;
    double scraping = 0;
    std::size_t bytes = 0;
    for (int i = 0; i < 10; ++i) {
        usleep(static_cast<useconds_t>(seconds) * 100000);
        double idle = processorSeconds(collector);
        slowest = std::max(slowest, scrape(9931, bytes));
        scraping += processorSeconds(collector) - idle;
    }
    double elapsed = std::chrono::duration<double>(Clock::now() - began).count();
    double spent = processorSeconds(collector) - before;
    require(waitpid(collector, nullptr, WNOHANG) == 0 && bytes > 0, "the collector ended");
    auto figure = [&](const char* unit, double value) {
        printf("@Collector, %d servers of %d records|%d sites of %d categories|%s|%.2f|%.2f|%.2f\n",
               segments, shape.records, shape.sites, shape.categories, unit, value, value, value);
    };
    figure("collection, % of a core", 100 * (spent - scraping) / elapsed);
    figure("a scrape, CPU ms", 100 * scraping);
    figure("slowest scrape, ms", slowest);
    figure("kB a scrape", static_cast<double>(bytes) / 1000);
    figure("MB of memory", static_cast<double>(residentKilobytes(collector)) / 1024);
    kill(collector, SIGTERM);
    waitpid(collector, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        fprintf(stderr,
                "usage: collector_load PROGRAM SEGMENTS RECORDS SECONDS SITES CATEGORIES\n");
        return 2;
    }
    try {
        measure(argv[1], atoi(argv[2]), atoi(argv[4]),
                {atoi(argv[3]), atoi(argv[5]), atoi(argv[6])});
        return 0;
    } catch (const std::exception& error) {
        perror(error.what());
        return 1;
    }
}
