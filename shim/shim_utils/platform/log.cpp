#include "shim_utils/platform/log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/local_time.h"
#include "shim_utils/platform/own_files.h"
#include "shim_utils/platform/quiet_write.h"
#include "shim_utils/platform/text.h"
#include "tolvane/segment_format.h"

// The log is written with bare system calls. A stream of the C library holds a lock
// that a fork can leave locked, is a cancellation point, allocates, and calls the
// shim's own wrappers.

namespace tolvane {
namespace {

// High enough that a server which closes a descriptor and expects the next open to
// return the same number is not affected.
constexpr int kLowestLogDescriptor = 64;

struct FileIdentity {
    std::atomic<dev_t> device;
    std::atomic<ino_t> inode;
};

std::atomic<int> logFile{-1};
FileIdentity logIdentity;  // of the file behind logFile

// Whether `fd` is still the log. The server may have closed the descriptor, and the
// number may belong to a client's connection now.
bool stillOurs(int fd) {
    struct stat now;
    return fd >= 0 && fstat(fd, &now) == 0 &&
           now.st_dev == logIdentity.device.load(std::memory_order_relaxed) &&
           now.st_ino == logIdentity.inode.load(std::memory_order_relaxed);
}

// Whether descriptor 2 is a usual target of error messages: a terminal or other
// device, a pipe, a file opened for appending, or the journal. If the server has
// closed standard error, the number may belong to a data file or a connection.
bool isStandardError() {
    constexpr int fd = STDERR_FILENO;
    struct stat status;
    if (fstat(fd, &status) != 0 || fcntl(fd, F_GETFD) != 0) return false;
    if (S_ISREG(status.st_mode)) return (fcntl(fd, F_GETFL) & O_APPEND) != 0;
    if (!S_ISSOCK(status.st_mode)) return S_ISCHR(status.st_mode) || S_ISFIFO(status.st_mode);

    constexpr char kJournal[] = "/run/systemd/journal/";
    sockaddr_un peer = {};
    socklen_t length = sizeof peer;
    return getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
           peer.sun_family == AF_UNIX &&
           std::strncmp(peer.sun_path, kJournal, sizeof kJournal - 1) == 0;
}

// Writes to standard error that there is no log, unless the write would block.
void reportMissingLog() {
    pollfd ready = {STDERR_FILENO, POLLOUT, 0};
    if (!isStandardError() || syscall(SYS_poll, &ready, 1, 0) != 1) return;
    Text<128> message;
    message.add("Log file ").add(kLogFile).add(" could not be opened\n");
    iovec line = {const_cast<char*>(message.text()), message.length()};
    writeQuietly(STDERR_FILENO, &line, 1);
}

// The descriptor of the log, or -1. Any user may replace the log: by a symbolic or
// hard link to another user's file, or by a pipe or a lease, which would block.
int openLogFile() {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK;
    static std::atomic<bool> modeSet{false};
    int fd = openOwn(kLogFile, kFlags);
    bool created = false;
    if (fd < 0 && errno == ENOENT) {
        fd = openOwn(kLogFile, kFlags | O_CREAT | O_EXCL);
        created = fd >= 0;
        // Another thread or process has created it.
        if (fd < 0 && errno == EEXIST) fd = openOwn(kLogFile, kFlags);
    }
    struct stat status;
    if (fd < 0) return -1;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1) {
        closeOwn(fd);
        return -1;
    }
    const bool again = modeSet.exchange(true, std::memory_order_relaxed);
    if (created || (!again && status.st_uid == geteuid())) fchmod(fd, 0777);
    return fd;
}

int openLog(int old) {
    int fd = openLogFile();
    if (fd < 0) {
        reportMissingLog();
        return -1;
    }
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
        closeOwn(fd);  // another thread has opened the log
        return old;
    }
    return fd;
}

void addTime(Text<32>& line, const LocalTime& local) {
    line.addTwoDigits(local.day).add("/").addTwoDigits(local.month).add("/");
    for (int low = 1000; low > 1 && local.year < low; low /= 10) line.add("0");
    line.add(local.year).add(" ");
    line.addTwoDigits(local.hour).add(":").addTwoDigits(local.minute).add(":");
    line.addTwoDigits(local.second).add("  ");
}

}  // namespace

void printErrorMsg(const char* text) {
    ErrnoGuard guard;
    LocalTime local;
    if (!localTime(time(nullptr), local)) return;

    int fd = logFile.load(std::memory_order_acquire);
    if (!stillOurs(fd)) fd = openLog(fd);
    if (fd < 0) return;

    // One call per line, so that lines of several processes do not mix.
    Text<32> date;
    addTime(date, local);
    char newline[] = "\n";
    iovec line[] = {{const_cast<char*>(date.text()), date.length()},
                    {const_cast<char*>(text), std::strlen(text)},
                    {newline, 1}};
    writeQuietly(fd, line, 3);
}

}  // namespace tolvane
