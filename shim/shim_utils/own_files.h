// Descriptors of the shim's own, opened and closed with bare system calls:
// such a call never lands in our own wrappers, holds no lock that a fork could
// leave locked, and is no point at which a thread can be cancelled.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tolvane {

// Opens `path`; a file that is created may be read and written by everybody,
// or by whom `mode` says, as far as the server's umask lets. Returns the
// descriptor, or -1 and errno.
inline int openOwn(const char* path, int flags, int mode = 0666) {
    constexpr int kAlways = O_CLOEXEC | O_NOCTTY | O_LARGEFILE;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | kAlways, mode));
}

inline void closeOwn(int fd) {
    syscall(SYS_close, fd);
}

}  // namespace tolvane
