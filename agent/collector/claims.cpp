#include "collector/claims.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "os/error.h"

namespace tolvane::agent {

namespace {

// One byte of the file, which need not be there, stands for each number.
struct flock byteOf(std::int32_t number, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = number;
    lock.l_len = 1;
    return lock;
}

}  // namespace

// Locks of this kind go when any descriptor of the file is closed: nothing else
// in this process opens it.
Claims::Claims(const std::string& path)
    : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644)) {
    if (fd_ < 0) fail(ErrorKind::kFailed, "{}: {}", path, std::strerror(errno));
}

Claims::~Claims() {
    ::close(fd_);
}

pid_t Claims::claim(std::int32_t number) const {
    struct flock lock = byteOf(number, F_WRLCK);
    if (::fcntl(fd_, F_SETLK, &lock) == 0) return 0;
    lock = byteOf(number, F_WRLCK);
    // Who has let go meanwhile is not told any more.
    bool held = ::fcntl(fd_, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && lock.l_pid > 0;
    return held ? lock.l_pid : -1;
}

void Claims::release(std::int32_t number) const {
    struct flock lock = byteOf(number, F_UNLCK);
    ::fcntl(fd_, F_SETLK, &lock);
}

}  // namespace tolvane::agent
