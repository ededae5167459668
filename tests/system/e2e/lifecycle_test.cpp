// How a running server takes configurations, and what it removes at its end.
#include <sys/sem.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <thread>

#include "system/e2e/script.h"

namespace tolvane::test {
namespace {

namespace fs = std::filesystem;
const std::string kOk = response("200 OK");
const ServerOptions kThreeRecords{.environment = {"REQUEST_INTERVAL=1", "NUM_SEMAPHORES=3"},
                                  .configuration = "MaxClients 150\n"};

class Lifecycle : public ScriptTest {};

TEST_F(Lifecycle, TakesAConfigurationWithAHigherVersion) {
    Measured server;
    EXPECT_EQ(server.segment.config().version, kVersionCreated);
    EXPECT_EQ(server.segment.config().interval, kDefaultInterval);
    server.segment.configure({{"a.test", {}}});
    // A process takes one configuration a second at most.
    const auto aSecondLater = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1010)); };
    serve(*server.worker, server.listener);  // takes version 1
    aSecondLater();
    std::snprintf(server.segment.config().siteName[0], kNameSize, "b.test");
    serve(*server.worker, server.listener);
    serve(*server.worker, server.listener, "b.test");
    EXPECT_EQ(server.segment.counts().site[0].requests, 1u);
    server.segment.raiseVersion();
    serve(*server.worker, server.listener);  // takes version 2
    serve(*server.worker, server.listener, "b.test");
    EXPECT_EQ(server.segment.counts().site[0].requests, 3u);
    EXPECT_EQ(server.segment.config().parentPid, server.parent->pid());
    // An impossible one is bounded, and named in the log once.
    aSecondLater();
    const auto logged = logMessages().size();
    std::memset(&server.segment.config(), 0x7f, sizeof(ConfigInfo) - sizeof(std::int32_t));
    server.segment.config().version = 3;
    for (int i = 0; i < 3; ++i) serve(*server.worker, server.listener);
    EXPECT_EQ(logMessages().size(), logged + 1);
}

TEST_F(Lifecycle, WorkersPublishAtExitAndTheMainProcessRemovesAll) {
    ServerOptions options = kThreeRecords;
    options.environment[0] = "REQUEST_INTERVAL=100";
    Measured server(options);
    std::uint32_t requests = 0;
    for (int i = 0; i < 4; ++i) {
        const auto worker = server.fork(*server.parent);
        for (int r = 0; r <= i; ++r) serve(*worker, server.listener), ++requests;
        worker->exit();
        EXPECT_EQ(server.segment.counts().total.requests, requests);
        const auto& record = server.segment.record(worker->pid() % 3);
        EXPECT_EQ(record.totalDirty & record.sitesDirty & record.categoriesDirty, 1);
    }
    for (int i = 0; i < 3; ++i) EXPECT_EQ(server.segment.semaphoreValue(i), 1);
    server.worker->exit();  // never had a connection
    EXPECT_NE(leftovers(), "");
    server.parent->exit();
    EXPECT_EQ(server.segment.config().version, kVersionRemoved);
    EXPECT_EQ(server.segment.counts().total.connections, requests);
    const auto log = logMessages();
    const std::vector<std::string> last = {"IN EQUALS CASE!!!", "REMOVING SEMAPHORE",
                                           "REMOVING SEMAPHORE", "REMOVING SEMAPHORE",
                                           "AFTER LOCK!"};
    EXPECT_TRUE(std::equal(last.rbegin(), last.rend(), log.rbegin()));
    // The segment itself goes when this process lets go of it.
    EXPECT_EQ(leftovers(), "1 shm ");
}

TEST_F(Lifecycle, SemaphoresKeepOneUnitWhenProcessesAreKilled) {
    Measured server(kThreeRecords);
    const auto expectOne = [&](const char* when) {
        for (int i = 0; i < 3; ++i) EXPECT_EQ(server.segment.semaphoreValue(i), 1) << when;
    };
    serve(*server.worker, server.listener);
    expectOne("first worker served");
    const auto second = server.fork(*server.parent);
    serve(*second, server.listener);
    server.worker->kill();
    expectOne("first worker killed");

    // A worker that is killed while it waits for its record.
    const int set = server.segment.record(second->pid() % 3).semaphoreId;
    sembuf take{0, -1, 0};
    sembuf give{0, 1, 0};
    ASSERT_EQ(semop(set, &take, 1), 0);
    Connection connection(*second, server.listener);
    connection.receive("read", get("a.test", "/"));
    std::thread blocked([&] {
        EXPECT_THROW((*second)(connection.call("out write", hex(kOk))), std::runtime_error);
    });
    EXPECT_TRUE(eventually(std::chrono::seconds(5), [&] { return semctl(set, 0, GETNCNT) == 1; }));
    kill(second->pid(), SIGKILL);
    blocked.join();
    ASSERT_EQ(semop(set, &give, 1), 0);
    expectOne("waiting worker killed");

    const auto third = server.fork(*server.parent);
    server.parent->kill();
    expectOne("parent killed");
    serve(*third, server.listener);
    third->exit();
    expectOne("last worker ended");
}

// Any local user can write the segment's `parentPid` at any time.
TEST_F(Lifecycle, WrongParentPidInTheSegmentChangesNothing) {
    enum When { kAtFirst, kLater, kAtTheEnd };
    for (const std::string written : {"worker", "idle", "1", "0", "-1", "-5", "2147483647"}) {
        for (const When when : {kAtFirst, kLater, kAtTheEnd}) {
            SCOPED_TRACE(testing::Message() << written << ", " << when);
            resetSandbox();
            Measured server({.environment = {"REQUEST_INTERVAL=100", "NUM_SEMAPHORES=3"}});
            const auto idle = server.fork(*server.parent);
            const auto write = [&](When now) {
                if (now != when) return;
                const pid_t pid = written == "worker" ? server.worker->pid()
                                  : written == "idle" ? idle->pid()
                                                      : std::stoi(written);
                server.segment.config().parentPid = pid;
            };
            write(kAtFirst);
            serve(*server.worker, server.listener);
            write(kLater);
            serve(*server.worker, server.listener);
            server.worker->exit();
            EXPECT_EQ(server.segment.counts().total.requests, 2u);
            write(kAtTheEnd);
            idle->exit();
            EXPECT_EQ(server.segment.config().version, kVersionCreated);
            fs::remove(std::string(kServerRoot) + "/logs/httpd.pid");  // as servers do
            server.parent->exit();
            EXPECT_EQ(server.segment.config().version, kVersionRemoved);
            EXPECT_EQ(leftovers(), "1 shm ");
        }
    }
}

// The main process knows itself by its own connections, by its pid file, or by
// the id that a worker published.
TEST_F(Lifecycle, OnlyTheMainProcessRemovesTheSegment) {
    const std::string pidFile = std::string(kServerRoot) + "/logs/httpd.pid";
    const struct {
        bool parentServes, pidFileAtEnd, otherServer, removes;
    } cases[] = {{true, false, false, true},
                 {true, true, false, true},
                 {false, false, false, true},
                 {false, true, false, true},
                 {false, true, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        resetSandbox();
        Measured server({.pidFile = false});
        writeFile(pidFile, std::to_string(server.parent->pid()));
        serve(c.parentServes ? *server.parent : *server.worker, server.listener);
        server.worker->exit();
        if (c.otherServer) writeFile(pidFile, "1");
        if (!c.pidFileAtEnd) fs::remove(pidFile);
        server.parent->exit();
        EXPECT_EQ(server.segment.config().version == kVersionRemoved, c.removes);
    }
    // Never learned, since no connection came: what is left is for the next start.
    resetSandbox();
    Measured server;
    server.worker->exit();
    server.parent->exit();
    EXPECT_EQ(server.segment.config().version, kVersionCreated);
}

TEST_F(Lifecycle, WaitsForTheLockFileOfAnotherServer) {
    Measured server;
    serve(*server.worker, server.listener);
    server.worker->exit();
    writeFile(kLockFile, "");
    std::thread other([&] {
        EXPECT_TRUE(eventually(std::chrono::seconds(5), [] { return systemVObjects("sem") == 0; }));
        EXPECT_EQ(server.segment.config().version, kVersionCreated);
        fs::remove(kLockFile);
    });
    server.parent->exit();
    other.join();
    EXPECT_EQ(server.segment.config().version, kVersionRemoved);
    EXPECT_EQ(leftovers(), "1 shm ");
}

TEST_F(Lifecycle, KeepsTheErrorTextOfTheDynamicLinker) {
    ScriptServer server;
    EXPECT_EQ((*server.parent)("keep_error_text").result, 0);
}

}  // namespace
}  // namespace tolvane::test
