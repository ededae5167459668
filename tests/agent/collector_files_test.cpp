// The collector's own files: the configuration that it gives to servers, and the
// database of totals.
#include <SQLiteCpp/SQLiteCpp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utime.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "collector_support.h"
#include "support/sandbox.h"

namespace tolvane::agent::test {
namespace {

TEST(CollectorFiles, WritesTheConfigurationAgainWhenTheFileChanges) {
    writeSites("a.test");
    FakeServer server(1);
    Collector collector(options(kConfig));
    auto seen = [&] {
        std::string text;
        server.edit([&](ConfigInfo& config, ResultStruct*) {
            text = std::to_string(config.version) + ":";
            for (int s = 0; s < config.numSites; ++s) {
                text += " " + std::string(config.siteName[s]) + "(" +
                        std::to_string(config.numCategories[s]) + ")";
            }
        });
        return text;
    };
    collector.round();
    EXPECT_EQ(seen(), "1: a.test(1)");
    publish(server, 0, 4);
    collector.round();
    EXPECT_EQ(seen(), "1: a.test(1)");

    // Another agent's configuration stays until the file changes.
    server.edit([](ConfigInfo& config, ResultStruct*) { config.version = 5; });
    collector.round();
    EXPECT_EQ(seen(), "5: a.test(1)");

    tolvane::test::writeFile(kConfig, "[[site]]\nname = 7\n");
    collector.reload();
    collector.round();
    EXPECT_EQ(seen(), "5: a.test(1)");
    collector.read([](const CollectorState& state) { EXPECT_FALSE(state.health.configValid); });

    // A site in front of the others moves nothing, and a removed one leaves a gap.
    writeSites("new.test", "a.test");
    for (int i = 0; i < 3; ++i) collector.round();
    EXPECT_EQ(seen(), "5: a.test(1)") << "it may be half written";
    sleep(1);
    collector.round();
    EXPECT_EQ(seen(), "6: a.test(0) new.test(1)");
    publish(server, 0, 1);
    writeSites("b.test", "new.test");
    collector.reload();
    collector.round();
    EXPECT_EQ(seen(), "7: (0) new.test(0) b.test(1)");
    // From a process that still uses the old configuration.
    publish(server, 0, 1);
    collector.round();
    EXPECT_EQ(rowsOf(collector)["a.test"], "6/6000");
    collector.read([](const CollectorState& state) {
        for (const SiteTally& site : state.servers.at("*:8080").sites) {
            EXPECT_EQ(site.configured, site.name != "a.test") << site.name;
        }
        EXPECT_EQ(state.health.configWritten, 3U);
    });
}

TEST(CollectorFiles, CountsWhileTheDatabaseFails) {
    FakeServer server(1);
    {
        Collector collector(options());
        collector.round();
        signal(SIGXFSZ, SIG_IGN);
        rlimit none = {1, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
        publish(server, 0, 2);
        collector.round();
        collector.read([](const CollectorState& state) {
            EXPECT_FALSE(state.health.storeWorks);
            EXPECT_EQ(state.health.storeFailures, 1U);
        });
        EXPECT_EQ(rowsOf(collector)[""], "2/2000");
        rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &all);
        collector.round();
        collector.read([](const CollectorState& state) { EXPECT_TRUE(state.health.storeWorks); });
    }
    {
        Collector collector(options());
        EXPECT_EQ(rowsOf(collector)[""], "2/2000");
    }
    std::fstream file(std::string(kState) + "/totals.db");
    file.seekp(100);
    file << std::string(3000, 'x');
    file.close();
    Collector collector(options());
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "2/2000") << "the segment still has them";
    EXPECT_EQ(tolvane::test::filesIn(kState).size(), 4U) << "the damaged file is put aside";
}

TEST(CollectorFiles, SurvivesADamagedRowAndAMissingTable) {
    const std::string database = std::string(kState) + "/totals.db";
    for (const char* damage :
         {"UPDATE run SET names = '{'", "UPDATE run SET names = '{\"records\":1}'",
          "UPDATE run SET names = replace(names, ':1', ':123456789012')",
          "UPDATE run SET names = 5"}) {
        tolvane::test::resetSandbox();
        FakeServer server(1);
        {
            Collector collector(options());
            publish(server, 0, 2);
            collector.round();
        }
        SQLite::Database(database, SQLite::OPEN_READWRITE).exec(damage);
        Collector collector(options());
        collector.round();
        EXPECT_EQ(stateOf(collector), RunState::kLive) << damage;
        EXPECT_EQ(rowsOf(collector)[""], "2/2000") << damage << ": nothing is added twice";
        publish(server, 0, 1);
        collector.round();
        EXPECT_EQ(rowsOf(collector)[""], "3/3000") << damage;
    }
    for (const char* damage :
         {"DROP TABLE total; PRAGMA user_version = 1", "DROP TABLE run",
          "ALTER TABLE total DROP COLUMN seen", "ALTER TABLE run RENAME TO other"}) {
        SQLite::Database(database, SQLite::OPEN_READWRITE).exec(damage);
        Collector collector(options());
        collector.round();
        collector.read(
            [&](const CollectorState& state) { EXPECT_TRUE(state.health.storeWorks) << damage; });
    }
}

TEST(CollectorFiles, OtherUsersCannotHoldItsLocks) {
    for (const std::string& path : {std::string(kOwnershipFile), std::string(kState) + "/lock"}) {
        std::filesystem::create_directories(kState);
        tolvane::test::writeFile(path, "");
        std::filesystem::permissions(path, std::filesystem::perms(0644));
        Collector collector(options());
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    }
}

// The process that wrote the file of a detaching server has ended long before.
TEST(CollectorFiles, RemovesTheHandoffFileThatAServerLeaves) {
    FakeServer server(1);
    publish(server, 0, 2);
    Collector collector(options());
    collector.round();
    const std::string text = tolvane::test::readFile(server.handoff());
    endServer(server);
    server.kill();
    tolvane::test::writeFile(server.handoff(), text);
    collector.round();
    EXPECT_EQ(access(server.handoff().c_str(), F_OK), 0) << "it may be a new one";
    utimbuf old = {0, std::time(nullptr) - 60};
    utime(server.handoff().c_str(), &old);
    for (int i = 0; i < 2; ++i) collector.round();
    EXPECT_NE(access(server.handoff().c_str(), F_OK), 0);
    EXPECT_EQ(rowsOf(collector)[""], "2/2000");
}

TEST(CollectorFiles, CollectsDespiteADamagedHandoffFile) {
    FakeServer server(1);
    tolvane::test::writeFile(server.handoff(), "Listen=*:8080\nShmid=");
    utimbuf old = {0, std::time(nullptr) + 60};
    utime(server.handoff().c_str(), &old);
    publish(server, 0, 2);
    Collector collector(options());
    collector.round();
    EXPECT_EQ(rowsOf(collector)[""], "2/2000");
    EXPECT_EQ(stateOf(collector), RunState::kLive);
}

TEST(CollectorFiles, LoadsTotalsOfAnEarlierFormat) {
    FakeServer server(1);
    writeSites("a.test");
    {
        Collector collector(options(kConfig));
        collector.round();
        publish(server, 0, 2);
        collector.round();
    }
    Rows before;
    {
        Collector collector(options());
        before = rowsOf(collector);
    }
    SQLite::Database(std::string(kState) + "/totals.db", SQLite::OPEN_READWRITE)
        .exec(
            "ALTER TABLE total RENAME COLUMN sent_bytes TO bytes_sent;"
            "ALTER TABLE total RENAME COLUMN received_bytes TO bytes_received;"
            "ALTER TABLE total RENAME COLUMN dropped_requests TO dropped;"
            "ALTER TABLE total RENAME COLUMN responses TO answered;"
            "ALTER TABLE total DROP COLUMN redirects; PRAGMA user_version = 1");
    Collector collector(options(kConfig));
    EXPECT_EQ(rowsOf(collector), before);
    EXPECT_EQ(before["a.test all"], "2/50");
    publish(server, 0, 1);
    collector.round();
    EXPECT_EQ(rowsOf(collector)["a.test"], "3/3000");
    collector.read([](const CollectorState& state) { EXPECT_TRUE(state.health.storeWorks); });
}

}  // namespace
}  // namespace tolvane::agent::test
