#include "shim_utils/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <thread>

#include "fake_clock.h"
#include "measured_process.h"
#include "support/sandbox.h"
#include "tolvane/segment_format.h"

namespace tolvane::test {
namespace {
namespace fs = std::filesystem;

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
    setenv("TZ", "UTC-1", 1);
    tzset();
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

TEST(Log, CreatesTheFileForEverybodyAndOnlyThen) {
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

TEST(Log, SaysOnStandardErrorThatItCannotOpenTheFile) {
    const std::string complaint = std::string("Log file ") + kLogFile + " could not be opened\n";
    close(logDescriptor());
    fs::rename("/opt/tolvane/agent/logs", "/opt/away");
    testing::internal::CaptureStderr();
    printErrorMsg("lost");
    printErrorMsg("lost too");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), complaint + complaint);
    fs::rename("/opt/away", "/opt/tolvane/agent/logs");

    LogTail log;
    testing::internal::CaptureStderr();
    printErrorMsg("back");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log.next(), (std::vector<std::string>{"back"}));
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
