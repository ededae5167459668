// Threaded servers at full load, in either layout.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "support/http_client.h"
#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

constexpr int kPort = 8080;
constexpr std::chrono::seconds kSoon(2);  // thousands of intervals

// The server blocks one signal only, except while it creates a thread or a
// process. The monitor blocks the others all the time.
int threadsThatBlock(int signal, pid_t pid) {
    int count = 0;
    for (const auto& task : filesIn("/proc/" + std::to_string(pid) + "/task")) {
        const std::string status = readFile(task + "/status");
        const auto blocked = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
        count += (blocked >> (signal - 1) & 1) != 0;
    }
    return count;
}

std::vector<Exchange> mix() {
    const std::string head = "GET /200 HTTP/1.1\r\nHost: a.test\r\n";
    return {
        {get("a.test", "/200"), 0, 0},
        {get("a.test", "/302/deep"), 0},
        {get("b.test", "/404/low"), 1, 0},
        {get("nowhere.test", "/503")},
        {"POST /200 HTTP/1.1\r\nHost: a.test\r\nA: " + std::string(9000, 'a') + "\r\n\r\n", 0, 0},
        {get("a.test", "/503"), 0},
        {get("b.test", "/200/deep"), 1, 1},
        {get("nowhere.test", "/200")},
        {get("a.test", "/drop"), 0, -1, true},
        {get("a.test", "/200/x"), 0, 0},
        {get("a.test", "/404/x"), 0},
        {head, 0, 0, true}};
}

class Threaded : public testing::Test {
  protected:
    void SetUp() override { resetSandbox(); }

    Process start(const std::string& kind, int threads, int forkers, int processes,
                  const std::string& module = "worker") {
        const std::string root = kServerRoot;
        const std::string port = std::to_string(kPort);
        writeFile(root + "/config/magnus.conf", "Port " + port + "\n");
        writeFile(root + "/conf/httpd.conf", "Listen " + port + "\n");
        writeFile(root + "/logs/.tolvane_info", module + "\n");
        return Process(
            {THREADED_SERVER, port, std::to_string(threads), std::to_string(forkers),
             std::to_string(processes)},
            {"LD_PRELOAD=" TOLVANE_LIBRARY, "WEB_SERVER=" + kind, "WEB_SERVER_ROOT=" + root + "/"});
    }

    static void expectLoadCounted(Segment& segment, Counts& expected) {
        expected += run(kPort, {.threads = 48, .connections = 150, .requests = 11, .mix = mix()});
        expectCounts(segment, expected.text(), kSoon);
        EXPECT_GT(expected.total.requests, 40000u);
    }

    static void expectCleanStop(Process& server, Segment& segment) {
        server.signal(SIGTERM);
        EXPECT_EQ(server.wait(std::chrono::seconds(10)), 0);
        EXPECT_EQ(segment.config().version, kVersionRemoved);
        EXPECT_EQ(leftovers(), "1 shm ");
    }

    const std::vector<Site> sites_ = {{"a.test", {"/200*"}}, {"b.test", {"/404*", "*deep"}}};
};

class Netscape : public Threaded, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(ForkingThreads, Netscape, testing::Values(0, 3));

TEST_P(Netscape, CountsEqualWhatTheClientsCounted) {
    Process server = start("Netscape", 100, GetParam(), 0);
    Segment segment;
    EXPECT_EQ(readFile(segment.handoffFile()),
              "Listen=*:8080\nShmid=" + std::to_string(segment.id()) +
                  "\nServer_Type=NETSCAPE\nStructures=1\n");
    EXPECT_EQ(segment.record(0).semaphoreId, kNoSemaphore);
    segment.configure(sites_, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // until the monitor has it
    Counts expected;
    expectLoadCounted(segment, expected);
    for (const int signal : {SIGUSR1, SIGCHLD, SIGINT}) {
        EXPECT_TRUE(eventually(std::chrono::seconds(2), [&] {
            return threadsThatBlock(signal, server.pid()) == 1;
        })) << signal;
    }
    expectCleanStop(server, segment);
}

// The module of this threaded server is not known: its measurement ends, and the
// server continues.
TEST_F(Threaded, ServerTakenForOneConnectionPerProcessServesOnUnobserved) {
    Process server = start("apache", 50, 0, 2, "prefork");
    writeFile(std::string(kServerRoot) + "/logs/httpd.pid", std::to_string(server.pid()));
    Segment segment;
    for (int i = 0; i < 3; ++i) {
        segment.configure(sites_);
        run(kPort, {.threads = 48, .connections = 20, .requests = 11, .mix = mix()});
    }
    int found = 0;
    for (const auto& message : logMessages()) {
        found += message.starts_with("This server has threads but was taken for one connection");
    }
    EXPECT_EQ(found, 2) << "once per process";
    EXPECT_EQ(server.children().size(), 2u);
    expectCleanStop(server, segment);
}

// Four processes that publish into the same record all the time.
TEST_F(Threaded, WorkersShareOneRecordWithoutLoss) {
    Process server = start("apache", 25, 0, 4);
    writeFile(std::string(kServerRoot) + "/logs/httpd.pid", std::to_string(server.pid()));
    Segment segment;
    segment.configure(sites_, 1);
    Counts expected;  // the first requests, in processes that prepare themselves, included
    expectLoadCounted(segment, expected);

    const auto killOne = [&] {
        const auto workers = server.children();
        kill(workers.back(), SIGKILL);
        EXPECT_TRUE(eventually(std::chrono::seconds(2),
                               [&] { return server.children().size() < workers.size(); }));
    };
    for (int i = 0; i < 3; ++i) killOne();
    ASSERT_EQ(server.children().size(), 1u);
    expected += run(kPort, {.threads = 5, .connections = 20, .requests = 11, .mix = mix()});
    expectCounts(segment, expected.text(), kSoon);
    killOne();
    EXPECT_EQ(segment.semaphoreValue(0), 1);
    expectCleanStop(server, segment);
}

}  // namespace
}  // namespace tolvane::test
