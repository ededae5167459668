// The collector beside servers that count, restart, end and are collected by
// others, and beside other collectors.
#include "collector/collector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "cli/exit_code.h"
#include "collector_support.h"
#include "os/error.h"

namespace tolvane::agent::test {
namespace {

TEST(Collector, KeepsLongTotalsByNameOverRestartsOfTheServer) {
    writeSites("a.test", "b.test");
    Collector collector(options(kConfig));
    {
        FakeServer server(3);
        collector.round();
        publish(server, 0, 5);
        publish(server, 2, 2);
        // All but the totals' last 40 requests fit into 32 bits.
        server.edit([](ConfigInfo&, ResultStruct* r) { r[1].total.bytesSent = 4294967290U; });
        collector.round();
        server.edit([](ConfigInfo&, ResultStruct* r) { r[1].total.bytesSent += 40; });
        publish(server, 2, 1);
        endServer(server);
        collector.round();
    }
    collector.round();
    EXPECT_EQ(rowsOf(collector), (Rows{{"", "8/4294975330"},
                                       {"a.test", "8/8000"},
                                       {"a.test all", "8/200"},
                                       {"b.test", "0/0"}}));
    FakeServer again(1);
    // These counts come before the configuration that names them.
    publish(again, 0, 3);
    collector.round();
    publish(again, 0, 4);
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "15/4294982330");
    EXPECT_EQ(rowsOf(collector)["a.test"], "15/15000");
}

TEST(Collector, ReadsBetweenRoundsWhatWouldWrap) {
    writeSites("a.test");
    Collector collector(options(kConfig));
    FakeServer server(1);
    collector.round();
    const auto grow = [&] {
        server.edit([](ConfigInfo&, ResultStruct* r) {
            r[0].total.bytesSent += 3000000000U;
            r[0].site[0].bytesSent += 3000000000U;
        });
    };
    grow();
    collector.collectEarly();
    EXPECT_EQ(rowsOf(collector)[""], "0/0") << "the totals change once per round";
    grow();
    collector.collectEarly();
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "0/6000000000");
    EXPECT_EQ(rowsOf(collector)["a.test"], "0/6000000000");
}

TEST(Collector, LosesAndDoublesNothingWhenKilled) {
    FakeServer server(4);
    writeSites("a.test");
    std::uint32_t published = 0;
    srand(7);
    for (int life = 0; life < 25; ++life) {
        pid_t pid = fork();
        if (pid == 0) {
            Collector collector(options(kConfig));
            for (;;) collector.round();
        }
        for (int i = 0; i < 100; ++i) {
            publish(server, i % 4, 3);
            published += 3;
            usleep(static_cast<useconds_t>(rand() % 500));
        }
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        publish(server, life % 4, 1);
        published += 1;
    }
    Collector collector(options(kConfig));
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""],
              std::to_string(published) + "/" + std::to_string(std::uint64_t{published} * 1000));
    EXPECT_EQ(semctl(server.semaphores()[0], 0, GETVAL), 1);
}

TEST(Collector, CollectsTheLastPublicationOfAStoppingServer) {
    FakeServer server(1);
    auto* worker = shmat(server.shmid(), nullptr, 0);
    Collector collector(options());
    collector.round();
    publish(server, 0, 1);
    auto* records = reinterpret_cast<ResultStruct*>(static_cast<ConfigInfo*>(worker) + 1);
    endServer(server);
    collector.round();
    EXPECT_EQ(stateOf(collector), RunState::kEnding);
    records[0].total.requests += 10;
    shmdt(worker);
    server.kill();
    EXPECT_TRUE(segmentExists(server.shmid())) << "the collector holds it until it has the counts";
    collector.round();
    EXPECT_FALSE(segmentExists(server.shmid()));
    EXPECT_EQ(rowsOf(collector)[""], "11/1000");
}

TEST(Collector, HasItsServerAndItsDirectoryAlone) {
    FakeServer server(1);
    publish(server, 0, 5);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t first = fork();
    if (first == 0) {
        Collector collector(options());
        collector.round();
        if (write(ready[1], "x", 1) != 1) _exit(1);
        for (;;) pause();
    }
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    try {
        Collector second(options());
        FAIL() << "two collectors in one directory";
    } catch (const Error& error) {
        EXPECT_NE(std::string(error.what()).find(std::to_string(first)), std::string::npos);
    }
    Collector other({"", "/opt/elsewhere", 1});
    other.round();
    EXPECT_EQ(stateOf(other), RunState::kHeld);
    EXPECT_EQ(rowsOf(other)[""], "0/0");
    writeSites("a.test");
    EXPECT_EQ(tolvane({"configure", kConfig, "--reset"}).code, kExitBadInput);
    EXPECT_EQ(tolvane({"configure", kConfig}).code, kExitOk);
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);
    other.round();
    other.round();
    EXPECT_EQ(stateOf(other), RunState::kLive);
    EXPECT_EQ(rowsOf(other)[""], "5/5000");
}

TEST(Collector, SkipsARecordWhileItsLockIsHeld) {
    FakeServer server(2);
    Collector collector(options());
    collector.round();
    publish(server, 0, 1);
    publish(server, 1, 1);
    int semaphore = server.semaphores()[1];
    change(semaphore, -1);
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "1/1000");
    change(semaphore, 1);
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "2/2000");
    // The collector never uses a foreign semaphore that a record names.
    int others = semget(IPC_PRIVATE, 2, IPC_CREAT | 0777);
    FakeServer hostile(1, "*:81");
    hostile.edit([&](ConfigInfo&, ResultStruct* r) {
        r[0].semaphoreId = others;
        r[0].total.requests = 9;
        r[0].totalDirty = 1;
    });
    collector.round();
    EXPECT_EQ(rowsOf(collector, "*:81")[""], "9/0");
    EXPECT_EQ(semctl(others, 0, GETPID), 0);
}

TEST(Collector, SkipsCountsThatAnotherAgentCollectedBefore) {
    FakeServer server(1);
    publish(server, 0, 5);
    server.edit([](ConfigInfo&, ResultStruct* r) { r[0].totalDirty = 0; });
    Collector collector(options());
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "0/0");
    // An exiting worker adds to collected counts; other publications start from 0.
    publish(server, 0, 2);
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "2/2000");
    server.edit([](ConfigInfo&, ResultStruct* r) { r[0].total = {}; });
    publish(server, 0, 1);
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "3/3000");
    // Collected and cleared; then more requests than before with fewer bytes.
    server.edit([](ConfigInfo&, ResultStruct* r) { r[0].totalDirty = 0; });
    collector.round();
    server.edit([](ConfigInfo&, ResultStruct* r) {
        r[0].total = {};
        r[0].total.requests = 20;
        r[0].total.bytesSent = 100;
        r[0].totalDirty = 1;
    });
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "23/3100");
    // An invalid sum in the segment does not change the mean.
    server.edit([](ConfigInfo& config, ResultStruct* r) {
        std::strcpy(config.siteName[0], "a.test");
        std::strcpy(config.categories[0][0].label, "all");
        config.numSites = config.numCategories[0] = config.categories[0][0].numSections = 1;
        config.version = 1;
        r[0].category[0][0].responseTimeSum = 1e300;
        r[0].category[0][0].requests += 1;
    });
    collector.round();
    EXPECT_EQ(rowsOf(collector)["a.test all"], "9/0");
}

TEST(Collector, NamesCountsOfAServerThatEndsBeforeTheNextRound) {
    FakeServer server(1);
    publish(server, 0, 2);
    Collector collector(options());
    collector.round();
    server.edit([](ConfigInfo& config, ResultStruct*) {
        std::strcpy(config.siteName[0], "a.test");
        config.numSites = 1;
        config.version = 1;
    });
    publish(server, 0, 3);
    // The segment's creation time seems to change with its rights.
    shmid_ds status{};
    shmctl(server.shmid(), IPC_STAT, &status);
    sleep(1);
    shmctl(server.shmid(), IPC_SET, &status);
    utimensat(AT_FDCWD, server.handoff().c_str(), nullptr, 0);
    endServer(server);
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "5/5000");
    EXPECT_EQ(rowsOf(collector)["a.test"], "5/5000");
    collector.read([](const CollectorState& state) {
        EXPECT_TRUE(state.servers.at("*:8080").sites.at(0).configured);
    });
}

}  // namespace
}  // namespace tolvane::agent::test
