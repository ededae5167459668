// The program itself: exit codes, and what it leaves alone.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "fake_server.h"
#include "segment/segment.h"
#include "support/sandbox.h"

namespace tolvane::agent::test {
namespace {

using tolvane::test::writeFile;

constexpr char kSites[] =
    "interval = 7\n[[site]]\nname = \"shop.example\"\n[[site.category]]\nlabel = \"cart\"\n"
    "urls = [\"/cart*\"]\n";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(CommandLine, ExitCodesTellScriptsWhatHappened) {
    writeFile("/opt/good.toml", kSites);
    writeFile("/opt/bad.toml", "interval = 0\n");
    writeFile("/opt/empty.toml", "interval = 5\n");
    const std::pair<std::vector<std::string>, int> cases[] = {
        {{}, 2},
        {{"nonsense"}, 2},
        {{"--version"}, 0},
        {{"top", "--delay", "0.01"}, 2},
        {{"run"}, 2},
        {{"run", "--", "/opt/absent"}, 2},
        {{"run", "--semaphores", "0", "--", "/bin/true"}, 2},
        {{"top", "--sort", "colour"}, 1},  // no server comes first
        {{"check", "/opt/good.toml"}, 0},
        {{"check", "/opt/bad.toml"}, 2},
        {{"check", "/opt/absent.toml"}, 2},
        {{"check", "/opt/empty.toml"}, 2},
        {{"configure", "--remove-all", "/opt/empty.toml"}, 1},
        {{"check", "/opt"}, 2},
        {{"configure", "/opt/bad.toml"}, 2},
        {{"configure", "/opt/good.toml"}, 1},
        {{"show"}, 1},
        {{"show", "--server", "4711"}, 1},
        {{"top"}, 1},
        {{"list"}, 1},
        {{"list", "--json"}, 1},
        {{"clean"}, 0},
        {{"doctor"}, 0},
    };
    for (const auto& [arguments, code] : cases) {
        Outcome outcome = tolvane(arguments);
        std::string all;
        for (const std::string& argument : arguments) all += argument + " ";
        EXPECT_EQ(outcome.code, code) << all << outcome.errors;
        EXPECT_FALSE(contains(outcome.output + outcome.errors, "\x1b")) << all << "colours a pipe";
    }
    EXPECT_TRUE(
        contains(tolvane({"check", "/opt/bad.toml"}).errors, "/opt/bad.toml:1:12: interval is 0"));
    EXPECT_EQ(WEXITSTATUS(std::system(TOLVANE_PROGRAM " list 2>/dev/full")), 1);
}

TEST(CommandLine, HelpsAndSuggests) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"lst"}, "tolvane: unknown command 'lst'; did you mean 'list'?"},
        {{"conf", "x"}, "tolvane: unknown command 'conf'; did you mean 'configure'?"},
        {{"xyzzy"}, "tolvane: unknown command 'xyzzy'; 'tolvane help' lists the commands"},
        {{"help", "lst"}, "tolvane: unknown command 'lst'"},
        {{"serve", "--intervall=5"},
         "tolvane: unknown option '--intervall'; did you mean '--interval'?; see 'tolvane serve "
         "--help'"},
        {{"top", "--delay", "0"}, "tolvane: --delay: "},
        {{"--nonsense"}, "tolvane: unknown option '--nonsense'; see 'tolvane --help'"},
        {{"check", "/opt/absent"}, "tolvane: /opt/absent: No such file"},
    };
    for (const auto& [arguments, expected] : cases) {
        Outcome outcome = tolvane(arguments);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_EQ(outcome.errors.find(expected), 0U) << outcome.errors;
    }
    EXPECT_EQ(tolvane({"help"}).output, tolvane({"--help"}).output);
    EXPECT_EQ(tolvane({"help", "top"}).output, tolvane({"top", "--help"}).output);
    writeFile("/opt/good.toml", kSites);
    EXPECT_EQ(std::system(TOLVANE_PROGRAM " check - </opt/good.toml >/opt/out"), 0);
    EXPECT_TRUE(contains(tolvane::test::readFile("/opt/out"), "<stdin>: valid: 1 site"));
    EXPECT_EQ(tolvane({"check", "-"}).errors.find("tolvane: <stdin>:1:1: no [[site]]"), 0U);
}

TEST(CommandLine, WritesJsonForPrograms) {
    FakeServer server;
    std::istringstream lines(tolvane({"top", "--json", "--count", "2", "--delay", "0.1"}).output);
    int objects = 0;
    for (std::string line; std::getline(lines, line); ++objects) {
        auto json = nlohmann::json::parse(line);
        EXPECT_EQ(json["segment"], server.shmid());
        EXPECT_EQ(json["rates_over_seconds"] > 0.09, objects == 1);
    }
    EXPECT_EQ(objects, 2);
    auto json = nlohmann::json::parse(tolvane({"doctor", "--json"}).output);
    EXPECT_GE(json["problems"], 1);
    EXPECT_EQ(json["findings"][0]["level"], "ok");
    EXPECT_TRUE(contains(json.dump(), "restart it with 'tolvane run'"));
}

TEST(CommandLine, ReadsAPipeToItsEnd) {
    ASSERT_EQ(mkfifo("/opt/pipe", 0600), 0);
    std::thread writer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        writeFile("/opt/pipe", kSites);
    });
    EXPECT_TRUE(contains(tolvane({"check", "/opt/pipe"}).output, "1 site"));
    writer.join();
}

TEST(CommandLine, ConfiguresAndShowsARunningServer) {
    FakeServer server(2, "*:8080");
    writeFile("/opt/sites.toml", kSites);
    EXPECT_EQ(tolvane({"configure", "/opt/sites.toml"}).code, 0);
    EXPECT_EQ(tolvane({"configure", "/opt/sites.toml", "--server", "*:8080"}).code, 0);
    server.edit([&](ConfigInfo& config, ResultStruct* records) {
        EXPECT_EQ(config.version, 2);
        EXPECT_EQ(config.interval, 7);
        EXPECT_STREQ(config.siteName[0], "shop.example");
        EXPECT_EQ(config.parentPid, server.pid());
        for (int i = 0; i < 2; ++i) {
            records[i].totalDirty = records[i].sitesDirty = records[i].categoriesDirty = 1;
            records[i].total.requests = 50;
            records[i].site[0].requests = 20;
            records[i].category[0][0] = {100, 10, 2, 0, 0, 0.4};
        }
    });
    auto json = nlohmann::json::parse(tolvane({"show", "--json"}).output);
    ASSERT_EQ(json.size(), 1U);
    EXPECT_EQ(json[0]["total"]["requests"], 100);
    EXPECT_EQ(json[0]["sites"][0]["name"], "shop.example");
    EXPECT_EQ(json[0]["sites"][0]["requests"], 40);
    const auto& category = json[0]["sites"][0]["categories"][0];
    EXPECT_EQ(category["label"], "cart");
    EXPECT_EQ(category["error_share"], 0.2);
    EXPECT_EQ(category["mean_response_seconds"], 0.05);
    EXPECT_EQ(json[0]["configuration_version"], 2);
    std::string table = tolvane({"show"}).output;
    EXPECT_TRUE(contains(table, "all traffic")) << table;
    EXPECT_TRUE(contains(table, "  cart")) << table;
    // A reader changes nothing.
    server.edit([](ConfigInfo&, ResultStruct* records) {
        EXPECT_EQ(records[1].totalDirty, 1);
        EXPECT_EQ(records[1].categoriesDirty, 1);
        EXPECT_EQ(records[1].total.requests, 50U);
    });
}

TEST(CommandLine, MarksWhatIsNotInForceAndNotPublished) {
    FakeServer server;
    writeFile("/opt/sites.toml", kSites);
    auto marked = [](const char* inReason, const char* inNote) {
        for (const std::vector<std::string>& command :
             {std::vector<std::string>{"list"}, {"show"}, {"doctor"}, {"top", "--count", "1"}}) {
            std::string text = tolvane(command).output;
            if (!contains(text, inReason) && !contains(text, inNote)) return false;
        }
        return true;
    };
    EXPECT_TRUE(marked("nothing published yet", "nothing is published yet"));
    EXPECT_FALSE(contains(tolvane({"show"}).output, "in force"));
    EXPECT_TRUE(contains(tolvane({"configure", "/opt/sites.toml"}).output, "In force within 2 s"));
    EXPECT_TRUE(marked("configuration 1 in force within", "configuration 1 is in force within"));
    // Processes that have a configuration look for another one after its interval.
    EXPECT_TRUE(contains(tolvane({"configure", "/opt/sites.toml"}).output, "In force within 7 s"));
    auto json = nlohmann::json::parse(tolvane({"list", "--json"}).output)[0];
    EXPECT_GE(json["configuration_pending_seconds"], 5);
    EXPECT_EQ(json["published"], false);
    server.edit([](ConfigInfo&, ResultStruct* records) {
        records[0].totalDirty = records[0].sitesDirty = 1;
        records[0].total.requests = 1;
    });
    utime(server.handoff().c_str(), nullptr);
    EXPECT_FALSE(contains(tolvane({"list"}).output + tolvane({"show"}).output, "yet"));
    EXPECT_TRUE(contains(tolvane({"show"}).output, "no request was counted for a site"));
}

TEST(CommandLine, ABadFileChangesNothingInTheSegment) {
    FakeServer server;
    writeFile("/opt/sites.toml", kSites);
    tolvane({"configure", "/opt/sites.toml"});
    writeFile("/opt/sites.toml", std::string(kSites) + "[[site]]\nname = \"shop.example\"\n");
    Outcome outcome = tolvane({"configure", "/opt/sites.toml"});
    EXPECT_EQ(outcome.code, 2);
    EXPECT_TRUE(contains(outcome.errors, "/opt/sites.toml:8:8: ")) << outcome.errors;
    server.edit([](ConfigInfo& config, ResultStruct*) {
        EXPECT_EQ(config.version, 1);
        EXPECT_EQ(config.numSites, 1);
    });
}

TEST(CommandLine, ConfigureReportsCountsThatChangeTheirName) {
    FakeServer server;
    writeFile("/opt/sites.toml", kSites);
    EXPECT_FALSE(contains(tolvane({"configure", "/opt/sites.toml"}).output, "earlier counts"));
    writeFile("/opt/sites.toml", "[[site]]\nname = \"blog.example\"\n");
    EXPECT_TRUE(contains(tolvane({"configure", "/opt/sites.toml"}).output,
                         "blog.example (was shop.example) takes over earlier counts"));
    server.edit([](ConfigInfo&, ResultStruct* records) {
        records[0].totalDirty = records[0].sitesDirty = records[0].categoriesDirty = 1;
        records[0].total.requests = 9;
    });
    tolvane({"configure", "--reset", "/opt/sites.toml"});
    server.edit([](ConfigInfo&, ResultStruct* records) {
        EXPECT_EQ(records[0].totalDirty, 1);
        EXPECT_EQ(records[0].sitesDirty, 0);
        EXPECT_EQ(records[0].categoriesDirty, 0);
    });
    EXPECT_FALSE(contains(tolvane({"doctor"}).output, "no process uses"));
}

TEST(CommandLine, CleanRemovesOnlyWhatStaleServersLeft) {
    FakeServer dead(5);
    // What the live server makes may still pass for the dead one's.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    FakeServer live(3);
    FakeServer reused(1);
    int foreignSemaphore = semget(IPC_PRIVATE, 2, IPC_CREAT | 0777);
    int privateSemaphore = semget(IPC_PRIVATE, 1, IPC_CREAT | 0600);
    int foreignSegment = shmget(IPC_PRIVATE, segmentSize(1), IPC_CREAT | 0777);
    auto deadSemaphores = dead.semaphores();
    int kept = deadSemaphores[2];
    auto liveSemaphores = live.semaphores();
    // An identifier in a segment is no proof of ownership.
    dead.edit([&](ConfigInfo&, ResultStruct* records) {
        records[2].semaphoreId = foreignSemaphore;
        records[3].semaphoreId = privateSemaphore;
        records[4].semaphoreId = liveSemaphores[0];
    });
    live.edit(
        [&](ConfigInfo&, ResultStruct* records) { records[0].semaphoreId = foreignSemaphore; });
    std::string liveText = tolvane::test::readFile(live.handoff());
    dead.kill();
    // An old file that names a segment of another owner.
    std::string old = kHandoffDirectory + std::string("webadapter.1");
    writeFile(old, "Listen=*:1\nShmid=" + std::to_string(foreignSegment) +
                       "\nServer_Type=APACHE\nStructures=1\n");
    // Damaged, but its process runs: it may be writing at this moment.
    writeFile(reused.handoff(), "Listen=*:8");
    std::string begun = kHandoffDirectory + (kHandoffPrefix + std::to_string(getppid()));
    writeFile(begun, "Listen=*:8");

    Outcome dry = tolvane({"clean", "--dry-run"});
    EXPECT_TRUE(segmentExists(dead.shmid()));
    EXPECT_TRUE(
        contains(dry.output, "segment " + std::to_string(dead.shmid()) + " would be removed"));
    EXPECT_EQ(tolvane({"clean"}).code, 0);
    EXPECT_FALSE(segmentExists(dead.shmid()));
    EXPECT_FALSE(semaphoreExists(deadSemaphores[0]));
    EXPECT_FALSE(semaphoreExists(deadSemaphores[1]));
    EXPECT_NE(access(dead.handoff().c_str(), F_OK), 0);
    EXPECT_NE(access(old.c_str(), F_OK), 0);

    EXPECT_TRUE(segmentExists(live.shmid()));
    for (int id : liveSemaphores) EXPECT_TRUE(semaphoreExists(id));
    EXPECT_TRUE(contains(dry.output,
                         "semaphore " + std::to_string(liveSemaphores[0]) + " is kept: server "));
    EXPECT_EQ(tolvane::test::readFile(live.handoff()), liveText);
    EXPECT_TRUE(segmentExists(reused.shmid()));
    EXPECT_EQ(access(reused.handoff().c_str(), F_OK), 0);
    EXPECT_EQ(access(begun.c_str(), F_OK), 0);
    EXPECT_TRUE(segmentExists(foreignSegment));
    EXPECT_TRUE(semaphoreExists(foreignSemaphore));
    EXPECT_TRUE(semaphoreExists(privateSemaphore));
    EXPECT_TRUE(semaphoreExists(kept));
    EXPECT_NE(access(kLockFile, F_OK), 0);
}

TEST(CommandLine, CleanRemovesALockThatNobodyHolds) {
    writeFile(kLockFile, "");
    EXPECT_TRUE(contains(tolvane({"clean"}).output, "No stale server"));
    EXPECT_EQ(access(kLockFile, F_OK), 0);
    utimbuf old = {0, 1000000000};
    utime(kLockFile, &old);
    EXPECT_EQ(tolvane({"doctor"}).code, 1);
    tolvane({"clean"});
    EXPECT_NE(access(kLockFile, F_OK), 0);
}

TEST(CommandLine, DoctorNamesEachProblemWithItsRemedy) {
    struct Case {
        const char* what;
        std::function<void(FakeServer&)> harm;
        const char* expected;
    };
    const Case cases[] = {
        {"log directory", [](FakeServer&) { rmdir("/opt/tolvane/agent/logs"); },
         "/opt/tolvane/agent/logs for the log: No such file or directory -> install -d -m 1777"},
        {"log file",
         [](FakeServer&) {
             writeFile(kLogFile, "");
             chmod(kLogFile, 0644);
         },
         "not writable for worker processes (mode 644) -> chmod 666"},
        {"log link",
         [](FakeServer&) {
             writeFile("/opt/private", "");
             if (symlink("/opt/private", kLogFile) != 0) ADD_FAILURE();
         },
         "web_log is not a regular file with one link, so no server writes to it -> rm "},
        {"variables", [](FakeServer&) {}, "WEB_SERVER is not set -> restart it with 'tolvane run'"},
        {"handoff directory",
         [](FakeServer&) {
             rename("/opt/tolvane/agent/config", "/opt/tolvane/agent/moved");
             writeFile("/opt/tolvane/agent/config", "");
         },
         "config/: cannot be read: Not a directory -> run doctor as root"},
        {"library",
         [](FakeServer& s) {
             s.edit([](ConfigInfo& c, ResultStruct*) { c.parentPid = getpid(); });
         },
         "its main process runs without the library -> "},
        {"no configuration", [](FakeServer&) {},
         "no configuration, so only the totals are counted -> tolvane"},
        {"half written",
         [](FakeServer& s) {
             s.edit([](ConfigInfo& c, ResultStruct*) { c.version = rewritingVersion(4); });
         },
         "a configuration is unfinished -> run 'tolvane configure FILE' again"},
        {"highest version",
         [](FakeServer& s) {
             s.edit([](ConfigInfo& c, ResultStruct*) { c.version = 2147483647; });
         },
         "version 2147483647 of the configuration is the highest possible"},
        {"not taken up",
         [](FakeServer& s) {
             s.edit([](ConfigInfo& c, ResultStruct* r) {
                 c.version = c.numSites = 1;
                 r[0].total.requests = 9;
                 r[0].totalDirty = r[0].sitesDirty = 1;
             });
         },
         "no process uses configuration 1: 9 requests"},
        {"semaphore", [](FakeServer& s) { semctl(s.semaphores()[0], 0, IPC_RMID); },
         "the semaphore of record 0 does not exist"},
        {"held semaphore",
         [](FakeServer& s) {
             sembuf take = {0, -1, 0};
             semop(s.semaphores()[0], &take, 1);
         },
         "the semaphore of record 0 is held, last used by process "},
        {"stale", [](FakeServer& s) { s.kill(); }, "stale: /opt/tolvane/agent/config/webadapter."},
    };
    for (const Case& c : cases) {
        tolvane::test::resetSandbox();
        FakeServer server;
        c.harm(server);
        Outcome outcome = tolvane({"doctor"});
        EXPECT_EQ(outcome.code, 1) << c.what;
        EXPECT_TRUE(contains(outcome.output, c.expected)) << c.what << ":\n" << outcome.output;
    }
}

}  // namespace
}  // namespace tolvane::agent::test
