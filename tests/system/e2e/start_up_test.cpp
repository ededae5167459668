// What a start leaves on the machine, and what may stand in its way.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <barrier>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "system/e2e/script.h"

namespace tolvane::test {
namespace {

namespace fs = std::filesystem;
const std::string kRecord = std::string(kServerRoot) + "/logs/.tolvane";
const ServerOptions kThreeRecords{.environment = {"REQUEST_INTERVAL=1", "NUM_SEMAPHORES=3"},
                                  .configuration = "MaxClients 150\n"};

class StartUp : public ScriptTest {};

int mode(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

TEST_F(StartUp, WritesTheFilesAndAnEmptySegment) {
    Measured server({.environment = {"REQUEST_INTERVAL=1", "SSL_FACTOR=", "NUM_SEMAPHORES=3"},
                     .configuration = "Listen 81\nMaxClients 11\n<VirtualHost _default_>\n"
                                      "SSLEngine ON\n</VirtualHost>\n"});
    Segment& segment = server.segment;
    const std::string id = std::to_string(segment.id());
    const std::string handoff =
        kHandoffDirectory + std::string(kHandoffPrefix) + std::to_string(server.parent->pid());
    EXPECT_EQ(segment.handoffFile(), handoff);
    EXPECT_EQ(readFile(handoff), "Listen=127.0.0.1:8080,*:81,_default_:-1\nShmid=" + id +
                                     "\nServer_Type=APACHE\nStructures=3\n");
    EXPECT_EQ(mode(handoff), 0777);
    EXPECT_EQ(readFile(kRecord), "Shmid=" + id + "\nFile=" + handoff + "\nStructures=3\n");
    EXPECT_EQ(segment.config().version, kVersionCreated);
    EXPECT_EQ(segment.config().interval, kDefaultInterval);
    EXPECT_EQ(segment.config().parentPid, kUnknownPid);
    EXPECT_EQ(segment.counts().text(), "");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(segment.semaphoreValue(i), 1);
    EXPECT_EQ(systemVObjects("sem"), 3);
    shmid_ds status{};
    ASSERT_EQ(shmctl(segment.id(), IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, segmentSize(3));
    EXPECT_EQ(status.shm_perm.mode & 0777, 0777);
    const std::vector<std::string> logged = {
        "The apache module is prefork:7",
        "This is apache server version 1.3.x(or apache2.0 with prefork module",
        kRecord + " file not Exist for shared mem check",
        " shared memory successfully created",
    };
    EXPECT_EQ(logMessages(), logged);
}

TEST_F(StartUp, OnlyASocketOnAConfiguredAddressStartsTheMeasurement) {
    const struct {
        std::string configured;
        int port;
        std::string bound;
        bool measured;
    } cases[] = {
        {"127.0.0.1:8080", 8080, "127.0.0.1", true},
        {"127.0.0.1:8080", 8081, "127.0.0.1", false},
        {"127.0.0.2:8080", 8080, "127.0.0.1", false},
        {"127.0.0.2:8080", 8080, "0.0.0.0", true},
        {"127.0.0.2:8080", 8080, "::", true},
        {"127.0.0.1:8080", 8080, "::ffff:127.0.0.1", true},
        {"127.0.0.2:8080", 8080, "::ffff:127.0.0.1", false},
        {"127.0.0.1:8080", 8080, "::1", false},
        {"8080", 8080, "::1", true},
        {"80", 80, "unix", false},
    };
    for (const auto& [configured, port, bound, measured] : cases) {
        resetSandbox();
        ScriptServer server({.listen = configured});
        server.listen(port, bound);
        EXPECT_EQ(filesIn(kHandoffDirectory).size(), measured ? 1u : 0u)
            << configured << " " << bound;
        EXPECT_EQ(systemVObjects("shm"), measured);
    }
}

TEST_F(StartUp, RemovesWhatAnEarlierRunLeft) {
    std::string earlier;
    {
        Measured server({.pidFile = false});
        earlier = server.segment.handoffFile();
        server.worker->exit();
        server.parent->exit();
        EXPECT_EQ(server.segment.config().parentPid, kUnknownPid);
        EXPECT_EQ(server.segment.config().version, kVersionCreated);
    }
    int semaphores = 0;
    for (const std::string structures : {"Structures=3\n", "Structures=2000000000\n", ""}) {
        {
            Measured server(kThreeRecords);
            EXPECT_NE(server.segment.handoffFile(), earlier);
            serve(*server.worker, server.listener);
            server.worker->kill();
            server.parent->kill();
            // A wrong record does no harm.
            writeFile(kRecord, "Shmid=" + std::to_string(server.segment.id()) +
                                   "\nFile= " + server.segment.handoffFile() + " \n" + structures);
        }
        Measured server;
        EXPECT_EQ(systemVObjects("shm"), 1);
        semaphores += structures.empty() ? 3 : 0;  // their number is unknown
        EXPECT_EQ(systemVObjects("sem"), 1 + semaphores);
        serve(*server.worker, server.listener);
        server.worker->exit();
        server.parent->exit();
    }
}

// The record names the segment of the last start only. Each start removes the
// segment before, which disappears when its server ends.
TEST_F(StartUp, ServersThatStartAtOnceLeaveNothing) {
    constexpr int kServers = 4;
    for (int round = 0; round < 15; ++round) {
        resetSandbox();
        std::unique_ptr<ScriptServer> servers[kServers];
        for (auto& server : servers) {
            server = std::make_unique<ScriptServer>(ServerOptions{
                .configuration = "Listen 8081\nListen 8082\nListen 8083\nMaxClients 150\n"});
        }
        int listeners[kServers];
        std::barrier together(kServers);
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < kServers; ++i) {
                threads.emplace_back([&, i] {
                    together.arrive_and_wait();
                    listeners[i] = servers[i]->listen(kPort + i);
                });
            }
        }
        ASSERT_EQ(systemVObjects("sem"), 3) << round;
        Segment segment;
        EXPECT_NE(readFile(kRecord).find(segment.handoffFile() + "\n"), std::string::npos);
        for (int i = 0; i < kServers; ++i) {
            const auto pid = std::to_string(servers[i]->parent->pid());
            if (!segment.handoffFile().ends_with("." + pid)) continue;
            writeFile(std::string(kServerRoot) + "/logs/httpd.pid", pid + "\n");
            Connection(*servers[i]->parent, listeners[i], kPort + i).close();
        }
        for (const auto& server : servers) server->parent->exit();
        EXPECT_EQ(leftovers(), "1 shm ") << round;  // attached here
    }
}

TEST_F(StartUp, WaitsFiveSecondsForAHeldLock) {
    const std::string lock = std::string(kServerRoot) + "/logs/.tolvane_lock";
    const std::string elsewhere = std::string(kServerRoot) + "/htdocs/file";
    const struct {
        std::string what;
        std::function<void()> prepare;
        int seconds;
        std::string logged;
    } cases[] = {
        {"free", [&] { writeFile(lock, ""); }, 0, ""},
        {"held", [&] { flock(open(lock.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600), LOCK_EX); }, 5,
         lock},
        {"fifo", [&] { mkfifo(lock.c_str(), 0600); }, 0, lock},
        {"link", [&] { fs::create_symlink(elsewhere, lock); }, 0, lock},
    };
    for (const auto& [what, prepare, seconds, logged] : cases) {
        resetSandbox();
        prepare();
        const auto start = std::chrono::steady_clock::now();
        Measured server;
        const auto taken = std::chrono::steady_clock::now() - start;
        EXPECT_GE(taken, std::chrono::seconds(seconds)) << what;
        EXPECT_LE(taken, std::chrono::seconds(seconds + 10)) << what;
        const auto log = logMessages();
        EXPECT_EQ(std::ranges::count_if(log, [&](auto& line) { return line.starts_with(lock); }),
                  logged.empty() ? 0 : 1)
            << what;
        EXPECT_FALSE(fs::exists(elsewhere));
        serve(*server.worker, server.listener);
        server.worker->exit();
        server.parent->exit();
        EXPECT_EQ(leftovers(), "1 shm ") << what;
    }
}

// `sets` may exist in all.
void limitSemaphores(int sets) {
    writeFile("/proc/sys/kernel/sem", "32000 1024000000 500 " + std::to_string(sets));
}

TEST_F(StartUp, LeavesNothingWhenItFails) {
    if (geteuid() != 0) GTEST_SKIP() << "the limit is root's";
    limitSemaphores(2);
    ScriptServer server(kThreeRecords);
    const int listener = server.listen(kPort);
    EXPECT_EQ(leftovers(), "");
    EXPECT_EQ(logMessages().back().find(" cannot create semaphores"), 0u);
    Connection(*server.fork(*server.parent), listener).close();
}

TEST_F(StartUp, RemovesAnEarlierRunsSemaphoresBeforeItCreatesItsOwn) {
    if (geteuid() != 0) GTEST_SKIP() << "the limit is root's";
    limitSemaphores(3);
    Measured(kThreeRecords).parent->kill();
    Measured server(kThreeRecords);
    EXPECT_TRUE(server.segment.handoffFile().ends_with(std::to_string(server.parent->pid())));
    EXPECT_EQ(systemVObjects("sem"), 3);
    EXPECT_EQ(server.segment.semaphoreValue(2), 1);
}

TEST_F(StartUp, CreatesAtMost1024Semaphores) {
    ServerOptions options = kThreeRecords;
    for (const auto& [asked, made] : {std::pair{"1024", 1024}, {"1025", 1024}, {"40000", 1024}}) {
        resetSandbox();
        options.environment[1] = std::string("NUM_SEMAPHORES=") + asked;
        Measured server(options);
        EXPECT_EQ(server.segment.structures(), made);
        EXPECT_EQ(systemVObjects("sem"), made);
        const auto log = logMessages();
        const auto told = std::ranges::count_if(
            log, [value = asked](auto& line) { return line.find(value) != std::string::npos; });
        EXPECT_EQ(told, asked == std::string("1024") ? 0 : 1);
        serve(*server.worker, server.listener);
        server.worker->exit();
        server.parent->exit();
        EXPECT_EQ(leftovers(), "1 shm ");
    }
}

long residentKilobytes(pid_t pid) {
    const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
    return std::stol(status.substr(status.find("VmRSS:") + 6));
}

TEST_F(StartUp, HugeDescriptorLimitsTakeNoTimeAndMemory) {
    for (const std::string limit :
         {"1073741816", "2147483647", "1099511627776", "18446744073709551615"}) {
        resetSandbox();
        ScriptServer server({.environment = {"REQUEST_INTERVAL=1", "HARD_LIMIT=" + limit}});
        const auto before = residentKilobytes(server.parent->pid());
        const auto start = std::chrono::steady_clock::now();
        const int listener = server.listen(kPort);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << limit;
        EXPECT_LT(residentKilobytes(server.parent->pid()) - before, 3 * 1024) << limit;
        Segment segment;
        const auto worker = server.fork(*server.parent);
        serve(*worker, listener);
        EXPECT_EQ(segment.counts().total.requests, 1u) << limit;
        const auto log = logMessages();
        const bool toldSo = std::ranges::any_of(
            log, [&](const auto& line) { return line.find("limit") != std::string::npos; });
        EXPECT_TRUE(toldSo || limit.size() <= 10) << limit;
    }
}

}  // namespace
}  // namespace tolvane::test
