#include "log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>

#include "errno_guard.h"
#include "own_files.h"
#include "text.h"
#include "tolvane/segment_format.h"
#include "tolvane/shim_tables.h"

// The log is written with bare system calls. The C library's stream would hold
// a lock that a fork can leave locked, be a cancellation point, and allocate;
// and the calls it makes would land in our own wrappers.

namespace tolvane {
namespace {

// High enough that a server which closes descriptors and expects the lowest
// free number back never meets ours.
constexpr int kLowestLogDescriptor = 64;

struct FileIdentity {
    std::atomic<dev_t> device;
    std::atomic<ino_t> inode;
};

std::atomic<int> logFile{-1};
FileIdentity logIdentity;  // of the file behind logFile

// Whether logFile is still the log: the server may have closed the descriptor,
// and then the number may be a client's connection by now.
bool stillOurs(int fd) {
    struct stat now;
    return fd >= 0 && fstat(fd, &now) == 0 &&
           now.st_dev == logIdentity.device.load(std::memory_order_relaxed) &&
           now.st_ino == logIdentity.inode.load(std::memory_order_relaxed);
}

// Says that there is no log, unless standard error is a client's connection.
void complain() {
    const DescriptorState* state = descriptorState(STDERR_FILENO);
    if (state != nullptr && state->typeOfSocket.load(std::memory_order_relaxed) != kUntracked)
        return;
    Text<128> complaint;
    complaint.add("Log file ").add(kLogFile).add(" could not be opened\n");
    syscall(SYS_write, STDERR_FILENO, complaint.text(), complaint.length());
}

int openLog(int old) {
    int fd = openOwn(kLogFile, O_WRONLY | O_CREAT | O_APPEND);
    if (fd < 0) {
        complain();
        return -1;
    }
    fchmod(fd, 0777);
    int high = fcntl(fd, F_DUPFD_CLOEXEC, kLowestLogDescriptor);
    if (high >= 0) {
        closeOwn(fd);
        fd = high;
    }
    struct stat identity;
    if (fstat(fd, &identity) == 0) {
        logIdentity.device.store(identity.st_dev, std::memory_order_relaxed);
        logIdentity.inode.store(identity.st_ino, std::memory_order_relaxed);
    }
    if (!logFile.compare_exchange_strong(old, fd)) {
        closeOwn(fd);  // another thread was faster
        return old;
    }
    return fd;
}

std::atomic<long> utcOffset{0};  // seconds east of UTC at the last conversion
std::atomic<bool> convertTime{true};

// The calendar date and time of `seconds` since the epoch.
tm calendarTime(long long seconds) {
    constexpr long long kDay = 86400;
    constexpr int kDaysOf400Years = 146097;
    long long day = seconds / kDay - (seconds % kDay < 0 ? 1 : 0);
    auto second = static_cast<int>(seconds - day * kDay);
    // Years here begin in March, so that a leap day comes last.
    day += 719468;  // from 1 March of the year 0 to the epoch
    auto era = static_cast<int>(day / kDaysOf400Years);
    auto dayOfEra = static_cast<int>(day % kDaysOf400Years);
    int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    int month = (5 * dayOfYear + 2) / 153;

    tm result = {};
    result.tm_mday = dayOfYear - (153 * month + 2) / 5 + 1;
    result.tm_mon = month < 10 ? month + 2 : month - 10;
    result.tm_year = era * 400 + yearOfEra + (month < 10 ? 0 : 1) - 1900;
    result.tm_hour = second / 3600;
    result.tm_min = second / 60 % 60;
    result.tm_sec = second % 60;
    return result;
}

bool localTime(tm& local) {
    time_t now = time(nullptr);
    if (!convertTime.load(std::memory_order_relaxed)) {
        local = calendarTime(now + utcOffset.load(std::memory_order_relaxed));
        return true;
    }
    if (localtime_r(&now, &local) == nullptr) return false;
    utcOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
    return true;
}

void addTime(Text<32>& line, const tm& local) {
    int year = local.tm_year + 1900;
    line.addTwoDigits(local.tm_mday).add("/").addTwoDigits(local.tm_mon + 1).add("/");
    for (int low = 1000; low > 1 && year < low; low /= 10) line.add("0");
    line.add(year).add(" ");
    line.addTwoDigits(local.tm_hour).add(":").addTwoDigits(local.tm_min).add(":");
    line.addTwoDigits(local.tm_sec).add("  ");
}

}  // namespace

void logWithoutTimeConversion() {
    convertTime.store(false, std::memory_order_relaxed);
}

void printErrorMsg(const char* text) {
    ErrnoGuard guard;
    tm local;
    if (!localTime(local)) return;

    int fd = logFile.load(std::memory_order_acquire);
    if (!stillOurs(fd)) fd = openLog(fd);
    if (fd < 0) return;

    // One call per line: appended lines of several processes stay whole.
    Text<32> date;
    addTime(date, local);
    char newline[] = "\n";
    iovec line[] = {{const_cast<char*>(date.text()), date.length()},
                    {const_cast<char*>(text), std::strlen(text)},
                    {newline, 1}};
    syscall(SYS_writev, fd, line, 3);
}

}  // namespace tolvane
