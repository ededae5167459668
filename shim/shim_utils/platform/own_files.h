// The shim's own descriptors, opened and closed with bare system calls. Such a call
// bypasses the shim's wrappers, holds no lock that a fork could leave locked, and
// is not a cancellation point.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tolvane {

// Opens `path`. A new file gets `mode`, by default read and write access for every
// user, reduced by the server's umask. Returns the descriptor, or -1 and errno.
inline int openOwn(const char* path, int flags, int mode = 0666) {
    constexpr int kAlways = O_CLOEXEC | O_NOCTTY | O_LARGEFILE;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | kAlways, mode));
}

inline void closeOwn(int fd) {
    syscall(SYS_close, fd);
}

}  // namespace tolvane
