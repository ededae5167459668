// Threads count at full speed while their counts are published without a pause.
// The shared sums must equal the threads' own, including the last bit of the
// response times.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <latch>
#include <thread>

#include "fake_clock.h"
#include "measured_process.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/publication/publication.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane::test {
namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 10'000;
#else
constexpr int kRounds = 200'000;
#endif
constexpr int kThreads = 4;
// Exact in binary, as are its multiples, and such that every addition changes
// both halves of a sum: one made up of two halves that do not belong together
// is no multiple of it.
constexpr std::int64_t kResponseTime = 3'145'728'015'625;  // microseconds
constexpr double kResponseSeconds = static_cast<double>(kResponseTime) / 1e6;
constexpr int kSites = 3;
constexpr int kDescriptorsPerThread = 200;

struct Load {
    const char* name;
    ServerType type;
    int openAtOnce;  // connections that each thread collects before it closes them
    bool reconfigure;
};

// A server thread and, counted apart, what it did.
class ServerThread {
  public:
    ServerThread(int number, const Load& load) : number_(number), load_(load) {}

    void run() {
        for (int round = 0; round < kRounds; ++round) {
            const int open = round % load_.openAtOnce;
            const int fd = number_ * kDescriptorsPerThread + open;
            countAccepted(fd, kPlain);
            ++done.total.connections;
            // The second one is now and then never answered: dropped at the close.
            const int site = serve(fd, round, 200);
            ++done.site[site].connections;
            serve(fd, round, round % 7 != 0 ? 100 * (2 + round % 4) : 0);
            if (open != load_.openAtOnce - 1) continue;
            for (int i = 0; i <= open; ++i) countClosed(number_ * kDescriptorsPerThread + i);
        }
    }

    Counts done;

  private:
    // One request; returns its site.
    int serve(int fd, int round, int status) {
        static constexpr char kText[] = "GET /page HTTP/1.1\r\nHost: a.test\r\n\r\n";
        fakeClock() = {1'000'000'000'000'000, kResponseTime};
        const int n = sizeof kText - 1 + round % 1000;
        received(fd, n, kText, sizeof kText - 1);
        const RequestInfo request = slotAt(GETINDEX(load_.type, fd)).state.requestInfo;
        const int site = request.siteIndex;
        EXPECT_EQ(request.numMatched, 1);
        // Site and category come from the same configuration.
        EXPECT_EQ(site, request.matched[0]);
        const std::string text =
            status == 0 ? "" : "HTTP/1.1 " + std::to_string(status) + " x\r\n\r\n";
        const bool timed = status != 0 && status < 400;
        if (status != 0) sent(fd, static_cast<ssize_t>(text.size()), text.data(), text.size());
        done.addRequest(site, site, static_cast<std::size_t>(n), text.size(), status);
        done.category[site][site].responseTimeSum += timed ? kResponseSeconds : 0.0;
        return site;
    }

    int number_;
    Load load_;
};

// The request falls in category `turn` of site `turn`, and in no other.
void configureTurn(ConfigInfo& config, std::size_t turn) {
    std::vector<Site> sites(kSites, {"b.test", std::vector<std::string>(kSites, "/other")});
    sites[turn].name = "a.test";
    for (Site& site : sites) site.categories[turn] = "/pa*e";
    configure(config, sites);
}

// The monitor of a server whose agent now and then writes a new configuration.
class Publisher {
  public:
    explicit Publisher(bool reconfigure) : reconfigure_(reconfigure) {}

    void runUntil(const std::atomic<int>& threadsDone) {
        while (threadsDone.load() < kThreads) {
            publishSlots();
            expectWholeSums();
            if (reconfigure_ && ++cycles_ % 16 == 0) takeNextConfiguration();
        }
        publishSlots();
    }
    int configurations() const { return configurations_; }

  private:
    static void expectWholeSums() {
        for (int s = 0; s < kSites; ++s) {
            const double sum = shmPtr[0].category[s][s].responseTimeSum;
            ASSERT_EQ(sum, std::round(sum / kResponseSeconds) * kResponseSeconds);
        }
    }
    void takeNextConfiguration() {
        configureTurn(*shmConfig, static_cast<std::size_t>(++configurations_ % kSites));
        ++shmConfig->version;
        // A monitor has slept since it retired the copy it now writes to.
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        EXPECT_TRUE(waitForSlotsAtWork());
        EXPECT_TRUE(copyConfiguration());
    }

    bool reconfigure_;
    int cycles_ = 0;
    int configurations_ = 0;
};

class Exactness : public testing::TestWithParam<Load> {};

TEST_P(Exactness, SharedSumsEqualTheThreadsOwn) {
    const Load& load = GetParam();
    const MeasuredProcess process(load.type);
    configureTurn(*shmConfig, 0);
    shmConfig->version = 1;
    ASSERT_TRUE(copyConfiguration());

    std::vector<ServerThread> servers;
    for (int t = 0; t < kThreads; ++t) servers.emplace_back(t, load);
    std::latch start(kThreads);
    std::atomic<int> threadsDone{0};
    std::vector<std::thread> threads;
    for (ServerThread& server : servers) {
        threads.emplace_back([&start, &threadsDone, &server] {
            start.arrive_and_wait();
            server.run();
            ++threadsDone;
        });
    }
    Publisher publisher(load.reconfigure);
    publisher.runUntil(threadsDone);
    for (std::thread& thread : threads) thread.join();

    Counts done;
    for (const ServerThread& server : servers) done += server.done;
    Counts published;
    published += shmPtr[0];
    EXPECT_EQ(describe(published), describe(done));
    EXPECT_EQ(done.total.connections, static_cast<std::uint32_t>(kThreads * kRounds));
    EXPECT_GE(publisher.configurations(), load.reconfigure ? 3 : 0);
    EXPECT_EQ(currMaxSockets.load() > kSlotStep, load.openAtOnce > kSlotStep);
}

INSTANTIATE_TEST_SUITE_P(
    Loads, Exactness,
    testing::Values(Load{"Netscape", kNetscape, 1, false}, Load{"Apache", kApacheThreads, 3, false},
                    Load{"GrowingTable", kNetscape, kDescriptorsPerThread, false},
                    Load{"NewConfigurations", kApacheThreads, 2, true}),
    [](const testing::TestParamInfo<Load>& load) { return std::string(load.param.name); });

}  // namespace
}  // namespace tolvane::test
