#include "shim_utils/lifecycle/run_files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "shim_utils/platform/log.h"
#include "shim_utils/platform/own_files.h"
#include "shim_utils/publication/semaphores.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

void logAbout(const char* before, const char* path, const char* after) {
    Text<1024> message;
    message.add(before).add(path).add(after);
    printErrorMsg(message.text());
}

bool lockInTime(int fd) {
    constexpr int kPause = 20;  // milliseconds
    constexpr int kTries = 5000 / kPause;
    for (int i = 0; i < kTries; ++i) {
        if (syscall(SYS_flock, fd, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK) return false;
        syscall(SYS_poll, nullptr, 0, kPause);
    }
    return false;
}

// Writing beyond the process's file size limit would raise a fatal signal.
bool withinFileLimit(std::size_t length) {
    rlimit limit;
    return getrlimit(RLIMIT_FSIZE, &limit) != 0 || length <= limit.rlim_cur;
}

// Creates `path` and replaces an existing regular file. Other users may be able to
// write to the directory, so the file is never written through a link, nor is a
// file that another user has open. Returns the descriptor, -1 if not created.
int createAnew(const char* path, int mode) {
    constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL;
    int fd = openOwn(path, kNew, mode);
    if (fd >= 0 || errno != EEXIST) return fd;
    struct stat there;
    if (lstat(path, &there) != 0 || !S_ISREG(there.st_mode)) return -1;
    unlink(path);
    return openOwn(path, kNew, mode);
}

enum class Access { kAsCreated, kEverybody, kOwner };

// Writes a file with exactly this text. On failure, no file is left.
template <std::size_t N>
bool writeAnew(const char* path, const Text<N>& text, Access access) {
    int mode = access == Access::kOwner ? 0600 : 0666;
    int fd = withinFileLimit(text.length()) ? createAnew(path, mode) : -1;
    if (fd < 0) return false;
    bool whole =
        syscall(SYS_write, fd, text.text(), text.length()) == static_cast<long>(text.length());
    if (access == Access::kEverybody) fchmod(fd, 0777);
    closeOwn(fd);
    if (!whole) unlink(path);
    return whole;
}

// Room for two full tables of addresses with separators and ports.
using HandoffText = Text<2 * kMaxAddresses*(kAddressNameSize + 16) + 128>;

void addAddresses(HandoffText& text, const PortTable& table, const char* separator) {
    for (int i = 0; i < table.numHttpPort; ++i, separator = ",") {
        text.add(separator).add(table.ipAddressName[i]).add(":").add(table.httpPort[i]);
    }
}

}  // namespace

HandoffPath handoffPath(int pid) {
    HandoffPath path;
    path.add(kHandoffDirectory).add(kHandoffPrefix).add(pid);
    return path;
}

ServerPath recordPath() {
    return serverPath("logs/.tolvane");
}

// A separate file that only the server's user can open, because any user who can
// lock it can delay the start.
RecordLock::RecordLock() {
    ServerPath path = serverPath("logs/.tolvane_lock");
    fd_ = openOwn(path.text(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd_ < 0 && errno == ENOENT) return;  // without the directory there is no record
    struct stat status;
    if (fd_ >= 0 && fstat(fd_, &status) == 0 && S_ISREG(status.st_mode) && lockInTime(fd_)) {
        device_ = status.st_dev;
        inode_ = status.st_ino;
        return;
    }
    logAbout("", path.text(), " cannot be locked: the start goes on without");
    if (fd_ >= 0) closeOwn(fd_);
    fd_ = -1;
}

// Another thread may have closed the descriptor, and the number may belong to a
// client's connection now.
RecordLock::~RecordLock() {
    struct stat now;
    if (fd_ < 0 || fstat(fd_, &now) != 0) return;
    if (now.st_dev != device_ || now.st_ino != inode_) return;
    syscall(SYS_flock, fd_, LOCK_UN);  // a child forked meanwhile also holds the lock
    closeOwn(fd_);
}

void writePreviousRunRecord() {
    Text<160> text;
    text.add("Shmid=").add(shmid).add("\nFile=").add(handoffPath(getpid()).text());
    text.add("\nStructures=").add(numStructures).add("\n");
    ServerPath path = recordPath();
    if (writeAnew(path.text(), text, Access::kAsCreated)) return;
    logAbout("", path.text(), " File cannot be created for writing");
}

ServerPath semaphoreListPath() {
    return serverPath("logs/.tolvane_semaphores");
}

void writeSemaphoreList() {
    static Text<kSemaphoreListSize> text;
    text.clear();
    text.add("Shmid=").add(shmid).add("\nSemaphores=");
    for (int i = 0; i < numStructures; ++i) text.add(semaphoreOf(i)).add(" ");
    text.add("\n");
    ServerPath path = semaphoreListPath();
    if (writeAnew(path.text(), text, Access::kOwner)) return;
    logAbout("", path.text(), " cannot be created: after a kill semaphores may stay");
}

void writeHandoffFile() {
    HandoffText text;
    text.add("Listen=");
    addAddresses(text, plainPorts, "");
    addAddresses(text, sslPorts, plainPorts.numHttpPort > 0 ? "," : "");
    text.add("\nShmid=").add(shmid).add("\nServer_Type=");
    text.add(webServerType == kNetscape ? "NETSCAPE" : "APACHE");
    text.add("\nStructures=").add(numStructures).add("\n");
    HandoffPath path = handoffPath(getpid());
    if (writeAnew(path.text(), text, Access::kEverybody)) return;
    logAbout("cannot open ", path.text(), " File ");
}

void deleteHandoffFile() {
    unlink(handoffPath(getpid()).text());
}

}  // namespace tolvane
