// Handoff files, and what is live, ending or stale.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstring>

#include "collector/collector.h"
#include "fake_server.h"
#include "os/error.h"
#include "os/process.h"
#include "segment/configuration_copy.h"
#include "servers/server.h"
#include "servers/uptake.h"
#include "support/sandbox.h"

namespace tolvane::agent::test {
namespace {

using tolvane::test::writeFile;

TEST(Handoff, IsReadOrItsFaultIsReported) {
    struct Case {
        std::string text;
        const char* problem;  // nullptr: none
    };
    const Case cases[] = {
        {"Listen=*:80,10.0.0.1:443\nShmid=5\nServer_Type=APACHE\nStructures=3\n", nullptr},
        {"Listen=\nShmid=0\nServer_Type=NETSCAPE\nStructures=1", nullptr},
        {"", "Shmid= line is missing"},
        {"Shmid=5\n", "Structures= line is missing"},
        {"Structures=5\n", "Shmid= line is missing"},
        {"Shmid=-1\nStructures=1\n", "\"Shmid=-1\" is not a number from 0"},
        {"Shmid=5x\nStructures=1\n", "is not a number"},
        {"Shmid=99999999999\nStructures=1\n", "is not a number"},
        {"Shmid=5\nStructures=0\n", "is not a number from 1"},
        {"Shmid=5\nStructures=2147483647\n", "is not a number from 1 to 461"},
        {std::string("Shmid=5\0\nStructures=1\n", 22), "is not a number"},
        {std::string(1000, '\xFF'), "missing"},
    };
    for (const Case& c : cases) {
        Handoff handoff;
        parseHandoff(c.text, handoff);
        if (c.problem == nullptr) {
            EXPECT_EQ(handoff.problem, "") << c.text;
        } else {
            EXPECT_NE(handoff.problem.find(c.problem), std::string::npos) << handoff.problem;
        }
    }
    Handoff handoff;
    parseHandoff(cases[0].text, handoff);
    EXPECT_EQ(handoff.listen, (std::vector<std::string>{"*:80", "10.0.0.1:443"}));
    EXPECT_EQ(handoff.shmid, 5);
    EXPECT_EQ(handoff.serverType, "APACHE");
    EXPECT_EQ(handoff.structures, 3);
    std::string addresses;
    for (int i = 0; i < 100; ++i) addresses += std::string(600, '1') + ",";
    parseHandoff("Listen=" + addresses + "\nShmid=5\nStructures=3\n", handoff);
    EXPECT_EQ(handoff.listen, std::vector<std::string>(20, std::string(55, '1')));
}

TEST(Handoff, OnlyPlainFilesWithAProcessIdCount) {
    writeFile(std::string(kHandoffDirectory) + "webadapter.12", "Shmid=1\nStructures=1\n");
    writeFile(std::string(kHandoffDirectory) + "webadapter.9", std::string(100000, 'x'));
    for (const char* name : {"webadapter.", "webadapter.x", "webadapter.007", "webadapter.-1",
                             "webadapter.0", "other"}) {
        writeFile(kHandoffDirectory + std::string(name), "Shmid=1\nStructures=1\n");
    }
    ASSERT_EQ(symlink("/etc/passwd", (kHandoffDirectory + std::string("webadapter.5")).c_str()), 0);
    ASSERT_EQ(mkfifo((kHandoffDirectory + std::string("webadapter.6")).c_str(), 0666), 0);
    auto handoffs = readHandoffs(kHandoffDirectory);
    ASSERT_EQ(handoffs.size(), 2U);
    EXPECT_EQ(handoffs[0].pid, 9);
    EXPECT_NE(handoffs[0].problem.find("cannot be read"), std::string::npos);
    EXPECT_EQ(handoffs[1].pid, 12);
}

void expectState(RunState state, const std::string& why) {
    auto servers = findServers();
    ASSERT_EQ(servers.size(), 1U);
    EXPECT_STREQ(runStateName(servers[0].state), runStateName(state));
    EXPECT_NE(servers[0].reason.find(why), std::string::npos) << servers[0].reason;
}

TEST(Servers, AreLiveWhileTheirProcessesRun) {
    FakeServer server(3);
    expectState(RunState::kLive, "1 process attached");
    EXPECT_EQ(findServers()[0].process, server.pid());
    server.edit([](ConfigInfo& config, ResultStruct*) { config.parentPid = kUnknownPid; });
    expectState(RunState::kLive, "no connection accepted yet");
    EXPECT_EQ(findServers()[0].process, server.pid());
}

TEST(Servers, AreEndingWhileProcessesRemain) {
    FakeServer server;
    server.edit([](ConfigInfo& config, ResultStruct*) { config.version = kVersionRemoved; });
    expectState(RunState::kEnding, "has stopped");
    server.edit([](ConfigInfo& config, ResultStruct*) {
        config.version = 1;
        config.parentPid = 4194304;
    });
    expectState(RunState::kEnding, "main process 4194304 has ended");
    server.edit([&](ConfigInfo& config, ResultStruct*) { config.parentPid = server.pid(); });
    shmctl(server.shmid(), IPC_RMID, nullptr);
    expectState(RunState::kEnding, "has stopped");
}

TEST(Servers, AreEndingWhenTheirMainProcessIsAZombie) {
    FakeServer server;
    pid_t zombie = fork();
    if (zombie == 0) _exit(0);
    waitid(P_PID, static_cast<id_t>(zombie), nullptr, WEXITED | WNOWAIT);
    server.edit([&](ConfigInfo& config, ResultStruct*) { config.parentPid = zombie; });
    expectState(RunState::kEnding, "has ended");
    Collector collector({"", "/opt/state", 1});
    collector.round();
    collector.read([](const CollectorState& state) {
        EXPECT_EQ(state.servers.at("*:8080").runs.at(0).state, RunState::kEnding);
    });
    waitpid(zombie, nullptr, 0);
}

TEST(Servers, AreStaleForAReason) {
    {
        FakeServer server;
        server.kill();
        expectState(RunState::kStale, "no process uses segment");
        // Processes that attach it as readers or agents do not make it live.
        for (int access : {SHM_RDONLY, 0}) {
            void* watched = shmat(server.shmid(), nullptr, access);
            expectState(RunState::kStale, "no process uses segment");
            shmdt(watched);
        }
        shmctl(server.shmid(), IPC_RMID, nullptr);
        expectState(RunState::kStale, "no longer exists");
        unlink(server.handoff().c_str());
    }
    FakeServer server;
    std::string text = tolvane::test::readFile(server.handoff());
    utimbuf old = {0, 1000000000};
    utime(server.handoff().c_str(), &old);
    expectState(RunState::kLive, "handoff file damaged: segment");
    std::string other = kHandoffDirectory + std::string("webadapter.1");
    rename(server.handoff().c_str(), other.c_str());
    utime(other.c_str(), nullptr);
    expectState(RunState::kStale, "was created by process " + std::to_string(server.pid()));
    writeFile(other, text.substr(0, text.find("Structures")) + "Structures=2\n");
    expectState(RunState::kStale, "belongs to another program: it has");
    writeFile(other, text);
    shmid_ds status{};
    shmctl(server.shmid(), IPC_STAT, &status);
    status.shm_perm.mode = 0700;
    shmctl(server.shmid(), IPC_SET, &status);
    expectState(RunState::kStale, "is not open to all users");
}

// Any local user can write into the file.
TEST(Servers, AreFoundDespiteAWrongHandoffFile) {
    FakeServer other(2, "*:81");
    FakeServer server(3);
    const std::string otherSegment = "Shmid=" + std::to_string(other.shmid());
    const std::string ownSegment = "Shmid=" + std::to_string(server.shmid());
    for (const std::string& text :
         {std::string(), std::string(100000, 'x'), std::string("Shmid=2147483647\nStructures=3\n"),
          otherSegment + "\nStructures=2\n", ownSegment + "\nStructures=1\n"}) {
        SCOPED_TRACE(text.substr(0, 50));
        writeFile(server.handoff(), text);
        Server found = selectServer(findServers(), std::to_string(server.pid()));
        EXPECT_EQ(found.handoff.shmid, server.shmid());
        EXPECT_EQ(found.handoff.structures, 3);
        EXPECT_TRUE(tolvane({"doctor"}).output.find("handoff file damaged: " + server.handoff()) !=
                    std::string::npos);
        tolvane({"clean"});
        EXPECT_EQ(access(server.handoff().c_str(), F_OK), 0);
        EXPECT_TRUE(segmentExists(server.shmid()) && segmentExists(other.shmid()));
        EXPECT_NE(found.reason.find("handoff file damaged: "), std::string::npos);
        tolvane({"doctor", "--repair"});
        found = selectServer(findServers(), std::to_string(server.pid()));
        EXPECT_EQ(found.damage, "");
        EXPECT_EQ(found.handoff.serverType, "APACHE");
    }
    // Also without the file, when the server has had the time to write it.
    unlink(server.handoff().c_str());
    EXPECT_EQ(findServers().size(), 1U);
    sleep(6);
    EXPECT_NE(tolvane({"list"}).output.find("handoff file damaged: it is missing"),
              std::string::npos);
    EXPECT_NE(tolvane({"doctor", "--repair"}).output.find("is written anew"), std::string::npos);
    EXPECT_EQ(readHandoffs(kHandoffDirectory).size(), 2U);
    EXPECT_EQ(findServers()[1].damage + findServers()[0].damage, "");
}

// In a container that shares the System V objects and the directory.
TEST(Servers, AreLiveInAnotherProcessNamespace) {
    {
        FakeServer server;
        const std::string tool = std::string("unshare -pf --mount-proc ") + TOLVANE_PROGRAM;
        auto from = [&](const std::string& command) {
            return runAndListen({"sh", "-c", tool + command}, {}, std::chrono::seconds(20)).output;
        };
        EXPECT_NE(from(" list").find("\nlive "), std::string::npos) << from(" list");
        writeFile(server.handoff(), "Listen=*:80");
        EXPECT_NE(from(" list").find("handoff file damaged"), std::string::npos) << from(" list");
        EXPECT_NE(from(" clean").find("No stale server"), std::string::npos);
        unlink(server.handoff().c_str());
    }
    ASSERT_EQ(unshare(CLONE_NEWPID), 0);
    FakeServer server;  // its processes have other ids there than here
    const std::string file = kHandoffDirectory + std::string("webadapter.1");
    for (const char* text : {"", "Listen=*:8080\nShmid=\n"}) {
        if (*text != '\0') writeFile(file, text);
        expectState(RunState::kLive, *text == '\0' ? "1 process attached" : "handoff file damaged");
        EXPECT_EQ(findServers()[0].handoff.shmid, server.shmid());
        EXPECT_EQ(findServers()[0].process, server.pid());
    }
}

// A unit with PrivateIPC=yes.
TEST(Servers, AreKeptInAnotherSystemVNamespace) {
    FakeServer server;
    ASSERT_EQ(unshare(CLONE_NEWIPC), 0);
    expectState(RunState::kUnreadable, "uses it in another System V namespace: 'nsenter -i -t " +
                                           std::to_string(server.pid()));
    EXPECT_NE(tolvane({"clean"}).output.find("No stale server"), std::string::npos);
    EXPECT_EQ(tolvane({"doctor"}).code, 1);
}

TEST(Servers, AreSelectedByAddressProcessOrSegment) {
    FakeServer first(1, "*:80,10.0.0.1:443");
    FakeServer second(1, "*:81");
    auto servers = findServers();
    EXPECT_EQ(selectServer(servers, "*:81").handoff.pid, second.pid());
    EXPECT_EQ(selectServer(servers, "10.0.0.1:443").handoff.pid, first.pid());
    for (const char* wanted : {"80", ":80", "*:80", "127.0.0.1:80", "localhost:80", "443", ":443",
                               "10.0.0.1:443", "[::1]:80"}) {
        EXPECT_EQ(selectServer(servers, wanted).handoff.pid, first.pid()) << wanted;
    }
    EXPECT_THROW(selectServer(servers, "127.0.0.1:443"), Error);
    EXPECT_THROW(selectServer(servers, "8"), Error);
    EXPECT_EQ(selectServer(servers, std::to_string(first.pid())).handoff.pid, first.pid());
    EXPECT_EQ(selectServer(servers, std::to_string(second.shmid())).handoff.pid, second.pid());
    auto codeOf = [&](const std::optional<std::string>& wanted) {
        try {
            selectServer(findServers(), wanted);
        } catch (const Error& error) {
            return static_cast<int>(error.kind());
        }
        return -1;
    };
    EXPECT_EQ(codeOf(std::nullopt), static_cast<int>(ErrorKind::kInvalidInput));
    EXPECT_EQ(codeOf("*:82"), static_cast<int>(ErrorKind::kNotFound));
    second.kill();
    EXPECT_EQ(codeOf("*:81"), static_cast<int>(ErrorKind::kFailed));
    EXPECT_EQ(codeOf(std::nullopt), -1);
    // A restarted server has left its old file behind.
    FakeServer again(1, "*:81");
    EXPECT_EQ(selectServer(findServers(), "*:81").handoff.pid, again.pid());
}

TEST(Uptake, DependsOnTheWayOfCountingAndTheIntervals) {
    struct Case {
        ServerMode mode;
        std::int32_t version, interval, newInterval;
        std::optional<int> seconds;
    };
    const ServerMode threads{true, true, false, 5};
    const Case cases[] = {
        {{true, true, true, 5}, 3, 60, 10, 2},
        {{true, false, true, 5}, 3, 60, 10, 2},
        {threads, kVersionCreated, 60, 10, 2},
        {threads, 3, 60, 10, 60},
        {threads, rewritingVersion(3), 60, 10, 60},
        {threads, 3, 86400, 10, 10},
        {threads, 3, 86400, 4000, 60},
        {threads, 3, -1, 10, 60},
        {{true, false, false, 9}, 3, 60, 10, {}},
        {{}, 3, 45, 10, 45},
    };
    for (const Case& c : cases) {
        ConfigInfo before{};
        before.version = c.version;
        before.interval = c.interval;
        EXPECT_EQ(uptakeOf(c.mode, before, c.newInterval).seconds, c.seconds)
            << &c - cases << ": " << uptakeOf(c.mode, before, c.newInterval).text;
    }
    EXPECT_NE(uptakeOf(cases[8].mode, {}, 10).text.find("after at most 9 of"), std::string::npos);
}

TEST(Segment, HostileCountsAreBounded) {
    FakeServer server;
    for (int fill : {0xFF, 0x7F, 0x80, 0x41}) {
        server.edit([&](ConfigInfo& config, ResultStruct* records) {
            std::memset(static_cast<void*>(&config), fill, sizeof config);
            std::memset(static_cast<void*>(records), fill, sizeof *records);
            config.version = 3;
            config.parentPid = server.pid();
        });
        Segment segment(server.shmid(), 1, Segment::Access::kRead);
        ConfigCopy copy = copyConfiguration(segment);
        EXPECT_TRUE(copy.steady);
        EXPECT_NE(copy.complaint.find("numSites is"), std::string::npos);
        EXPECT_LE(copy.info->numSites, kMaxSites);
        for (const char* command : {"show", "list", "doctor"}) {
            Outcome outcome = tolvane({command});
            EXPECT_LE(outcome.code, 1) << fill << " " << command << ": " << outcome.errors;
            EXPECT_GE(outcome.code, 0) << fill << " " << command;
        }
        EXPECT_EQ(tolvane({"show", "--json"}).code, 0);
    }
}

TEST(Segment, EveryFieldOutOfItsBoundsIsReportedAndCorrected) {
    struct Case {
        std::function<void(ConfigInfo&)> spoil;
        const char* complaint;
    };
    const Case cases[] = {
        {[](ConfigInfo&) {}, ""},
        {[](ConfigInfo& c) { c.numHosts[0] = 7; }, "numHosts[0] is 7 (0 to 6)"},
        {[](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[0] = 48; },
         "pieceLength[0][0][0][0] is 48 (0 to 47)"},
        {[](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[1] = -1; }, ""},
        {[](ConfigInfo& c) { std::memset(c.siteName[0], 'x', kNameSize); },
         "siteName[0] is not terminated"},
        // Servers do not examine labels.
        {[](ConfigInfo& c) { std::memset(c.categories[0][0].label, '\xff', kLabelSize); }, ""},
    };
    for (const Case& c : cases) {
        ConfigInfo config{};
        config.numSites = config.numCategories[0] = 1;
        config.categories[0][0].numSections = config.categories[0][0].sections[0].numPieces = 1;
        c.spoil(config);
        EXPECT_EQ(sanitiseConfiguration(config), c.complaint);
        EXPECT_EQ(sanitiseConfiguration(config), "") << c.complaint;
    }
    ConfigInfo config{};
    config.numSites = config.numCategories[0] = 1;
    std::strcpy(config.siteName[0], "two\nlines \xe0\x80\x80");
    std::strcpy(config.categories[0][0].label, "caf\xc3\xa9 \xed\xa0\x80");
    sanitiseConfiguration(config);
    EXPECT_STREQ(config.siteName[0], "two?lines ???");
    EXPECT_STREQ(config.categories[0][0].label, "caf\xc3\xa9 ???");
}

TEST(Segment, OfAnotherSizeIsNotAttached) {
    int small = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    EXPECT_THROW(Segment(small, 1, Segment::Access::kRead), Error);
    shmctl(small, IPC_RMID, nullptr);
    EXPECT_THROW(Segment(small, 1, Segment::Access::kRead), Error);
}

}  // namespace
}  // namespace tolvane::agent::test
