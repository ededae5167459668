#include "shim_utils/platform/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <thread>

#include "fake_clock.h"
#include "measured_process.h"
#include "support/sandbox.h"
#include "tolvane/segment_format.h"

namespace tolvane::test {
namespace {
namespace fs = std::filesystem;

// A process keeps the time zone of its first line.
[[maybe_unused]] const int zoneOfAllCases = setenv("TZ", "UTC-1", 1);

mode_t logMode() {
    struct stat status = {};
    EXPECT_EQ(stat(kLogFile, &status), 0);
    return status.st_mode & 07777;
}

// The descriptor behind the log; -1: not open.
int logDescriptor() {
    for (int fd = 0; fd < 1024; ++fd) {
        std::error_code error;
        const fs::path file = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
        if (!error && file == kLogFile) return fd;
    }
    return -1;
}

TEST(Log, WritesOneDatedLinePerMessage) {
    const std::size_t before = readFile(kLogFile).size();
    fakeTime = 1'088'859'909;
    printErrorMsg(" 100 %s %n%%");
    printErrorMsg("ends its line\n");
    fakeTime = 2'145'920'401;
    printErrorMsg("");
    if constexpr (sizeof(time_t) > 4) {
        fakeTime = std::numeric_limits<time_t>::max();
        printErrorMsg("in a year that no date can show");
    }
    fakeTime = 0;
    EXPECT_EQ(readFile(kLogFile).substr(before),
              "03/07/2004 14:05:09   100 %s %n%%\n"
              "03/07/2004 14:05:09  ends its line\n\n"
              "01/01/2038 02:00:01  \n");
}

TEST(Log, SetsTheModeOnlyWhenItCreatesTheFile) {
    close(logDescriptor());
    fs::remove(kLogFile);
    const mode_t mask = umask(077);
    printErrorMsg("first");
    umask(mask);
    EXPECT_EQ(logMode(), 0777U);
    ASSERT_EQ(chmod(kLogFile, 0600), 0);
    errno = EDOM;
    printErrorMsg("second");
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(logMode(), 0600U);
    EXPECT_EQ(logMessages(), (std::vector<std::string>{"first", "second"}));
}

TEST(Log, SurvivesAServerThatTakesItsDescriptor) {
    printErrorMsg("open");
    LogTail log;
    const int closed = logDescriptor();
    ASSERT_GE(closed, 64) << "servers expect the low numbers for themselves";
    close(closed);
    printErrorMsg("closed behind its back");

    const int reused = logDescriptor();
    const int other = open("/opt/connection", O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(dup2(other, reused), reused);
    printErrorMsg("reused behind its back");
    printErrorMsg("and open again");
    EXPECT_EQ(readFile("/opt/connection"), "");
    EXPECT_EQ(fcntl(reused, F_GETFD), 0) << "the server's descriptor stays open";
    EXPECT_EQ(log.next(), (std::vector<std::string>{"closed behind its back",
                                                    "reused behind its back", "and open again"}));
    close(other);
    close(reused);
}

const std::string kComplaint = std::string("Log file ") + kLogFile + " could not be opened\n";

// Standard error as a server's own log file, which is only appended to.
class ErrorLog {
  public:
    explicit ErrorLog(int flags = O_APPEND) : before_(dup(STDERR_FILENO)) {
        fs::remove(kFile);
        const int fd = open(kFile, O_WRONLY | O_CREAT | flags, 0600);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~ErrorLog() {
        dup2(before_, STDERR_FILENO);
        close(before_);
    }
    std::string text() const { return readFile(kFile); }

  private:
    static constexpr char kFile[] = "/opt/error_log";
    int before_;
};

TEST(Log, ReportsOnStandardErrorThatItCannotOpenTheFile) {
    close(logDescriptor());
    fs::rename("/opt/tolvane/agent/logs", "/opt/away");
    {
        ErrorLog errors;
        printErrorMsg("lost");
        printErrorMsg("lost too");
        EXPECT_EQ(errors.text(), kComplaint + kComplaint);
    }
    {
        ErrorLog data(0);
        printErrorMsg("nothing into a data file that took the number");
        EXPECT_EQ(data.text(), "");
    }
    fs::rename("/opt/away", "/opt/tolvane/agent/logs");

    LogTail log;
    ErrorLog errors;
    printErrorMsg("back");
    EXPECT_EQ(errors.text(), "");
    EXPECT_EQ(log.next(), (std::vector<std::string>{"back"}));
}

TEST(Log, RefusesForeignFilesInItsPlace) {
    const std::string other = "/opt/other";
    const struct {
        const char* what;
        std::function<int()> put;
    } cases[] = {
        {"a pipe", [] { return mkfifo(kLogFile, 0777); }},
        {"a link", [&] { return symlink(other.c_str(), kLogFile); }},
        {"a link to nothing", [] { return symlink("/opt/nothing", kLogFile); }},
        {"a second name", [&] { return link(other.c_str(), kLogFile); }},
        {"a directory", [] { return mkdir(kLogFile, 0777); }},
    };
    close(logDescriptor());
    for (const auto& [what, put] : cases) {
        fs::remove(kLogFile);
        writeFile(other, "kept");
        ASSERT_EQ(chmod(other.c_str(), 0600), 0);
        ASSERT_EQ(put(), 0) << what;
        inChild([] {
            alarm(5);  // a server must not wait for the pipe's reader
            ErrorLog errors;
            printErrorMsg("refused");
            EXPECT_EQ(errors.text(), kComplaint);
        });
        EXPECT_EQ(readFile(other), "kept") << what;
        EXPECT_EQ(fs::status(other).permissions(), fs::perms(0600)) << what;
        EXPECT_FALSE(fs::exists("/opt/nothing"));
    }
    fs::remove(kLogFile);
    fs::remove(other);
}

void breakStandardError() {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    dup2(ends[1], STDERR_FILENO);
    close(logDescriptor());
    fs::rename("/opt/tolvane/agent/logs", "/opt/away");
}

void reachFileSizeLimit() {
    printErrorMsg("fills the log");
    const rlimit full = {fs::file_size(kLogFile), RLIM_INFINITY};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
}

bool isPending(int signal) {
    sigset_t set;
    sigpending(&set);
    return sigismember(&set, signal) == 1;
}

bool isBlocked(int signal) {
    sigset_t set;
    sigprocmask(SIG_BLOCK, nullptr, &set);
    return sigismember(&set, signal) == 1;
}

TEST(Log, RaisesNoSignalInTheServer) {
    const struct {
        int signal;
        void (*spoil)();
    } cases[] = {{SIGPIPE, breakStandardError}, {SIGXFSZ, reachFileSizeLimit}};
    for (const auto& c : cases) {
        inChild([&] {
            c.spoil();
            printErrorMsg("unheard");
            EXPECT_FALSE(isBlocked(c.signal));
            sigset_t own;
            sigemptyset(&own);
            sigaddset(&own, c.signal);
            sigprocmask(SIG_BLOCK, &own, nullptr);
            printErrorMsg("unheard");
            EXPECT_FALSE(isPending(c.signal));
            raise(c.signal);
            printErrorMsg("unheard");
            EXPECT_TRUE(isPending(c.signal) && isBlocked(c.signal)) << "the server's own";
        });
        if (fs::exists("/opt/away")) fs::rename("/opt/away", "/opt/tolvane/agent/logs");
    }
}

// The C library's conversion holds a lock that the child would wait for.
TEST(Log, WritesInAForkedChildOfAThreadedProcess) {
    std::atomic<bool> stop{false};
    std::thread converting([&] {
        for (time_t now = 0; !stop.load(); ++now) {
            tm local;
            localtime_r(&now, &local);
        }
    });
    for (int i = 0; i < 50 && !testing::Test::HasFailure(); ++i) {
        inChild([] {
            alarm(2);
            printErrorMsg("child");
        });
    }
    stop = true;
    converting.join();
}

TEST(Log, KeepsTheLinesOfSeveralThreadsWhole) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 100;
    close(logDescriptor());  // and they open it at the same moment
    LogTail log;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::string message(200, static_cast<char>('a' + t));
            for (int i = 0; i < kMessages; ++i) printErrorMsg(message.c_str());
        });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<int> seen(kThreads);
    for (const std::string& line : log.next()) {
        ASSERT_EQ(line, std::string(200, line[0]));
        ++seen.at(static_cast<std::size_t>(line[0] - 'a'));
    }
    EXPECT_EQ(seen, std::vector<int>(kThreads, kMessages));
}

}  // namespace
}  // namespace tolvane::test
