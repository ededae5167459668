#include "collector/ownership_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "os/error.h"

namespace tolvane::agent {

namespace {

// The byte at that offset; the file may be shorter.
struct flock byteOf(std::int32_t number, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = number;
    lock.l_len = 1;
    return lock;
}

}  // namespace

// Such a lock is released when the process closes any descriptor of the file, so
// nothing else in this process opens it.
OwnershipLock::OwnershipLock(const std::string& path)
    : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (fd_ < 0) fail(ErrorKind::kFailed, "{}: {}", path, std::strerror(errno));
    // An earlier version created it readable for all users. A user who can read it can
    // also hold a read lock, which would exclude every collector.
    ::fchmod(fd_, 0600);
}

OwnershipLock::~OwnershipLock() {
    ::close(fd_);
}

pid_t OwnershipLock::acquire(std::int32_t number) const {
    struct flock lock = byteOf(number, F_WRLCK);
    if (::fcntl(fd_, F_SETLK, &lock) == 0) return 0;
    lock = byteOf(number, F_WRLCK);
    // The holder may have released it meanwhile.
    bool held = ::fcntl(fd_, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && lock.l_pid > 0;
    return held ? lock.l_pid : -1;
}

void OwnershipLock::release(std::int32_t number) const {
    struct flock lock = byteOf(number, F_UNLCK);
    ::fcntl(fd_, F_SETLK, &lock);
}

}  // namespace tolvane::agent
