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

int openLog(int old) {
    int fd = openOwn(kLogFile, O_WRONLY | O_CREAT | O_APPEND);
    if (fd < 0) {
        Text<128> complaint;
        complaint.add("Log file ").add(kLogFile).add(" could not be opened\n");
        syscall(SYS_write, STDERR_FILENO, complaint.text(), complaint.length());
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

void addTime(Text<32>& line, const tm& local) {
    int year = local.tm_year + 1900;
    line.addTwoDigits(local.tm_mday).add("/").addTwoDigits(local.tm_mon + 1).add("/");
    for (int low = 1000; low > 1 && year < low; low /= 10) line.add("0");
    line.add(year).add(" ");
    line.addTwoDigits(local.tm_hour).add(":").addTwoDigits(local.tm_min).add(":");
    line.addTwoDigits(local.tm_sec).add("  ");
}

}  // namespace

void printErrorMsg(const char* text) {
    ErrnoGuard guard;
    time_t now = time(nullptr);
    tm local;
    if (localtime_r(&now, &local) == nullptr) return;

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
