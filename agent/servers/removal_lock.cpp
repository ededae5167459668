#include "servers/removal_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "os/error.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

RemovalLock::RemovalLock(const WaitNotice& notice) {
    using namespace std::chrono_literals;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
        int fd = ::open(kLockFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0) ::close(fd);
        // Servers do not lock without the directory either.
        if (fd >= 0 || errno == ENOENT) return;
        if (errno != EEXIST) fail(ErrorKind::kFailed, "{}: {}", kLockFile, std::strerror(errno));
        if (std::chrono::steady_clock::now() > deadline) {
            fail(ErrorKind::kFailed,
                 "{} is held by a server that is stopping; try again in a minute", kLockFile);
        }
        if (notice) notice("waiting for a server that is stopping");
        std::this_thread::sleep_for(200ms);
    }
}

RemovalLock::~RemovalLock() {
    ::unlink(kLockFile);
}

std::optional<long> abandonedLockAge() {
    // Enough for the removal of a segment and a file.
    constexpr long kLongest = 60;
    struct stat status {};
    if (::lstat(kLockFile, &status) != 0) return std::nullopt;
    long age = static_cast<long>(std::time(nullptr) - status.st_mtime);
    return age > kLongest ? std::optional(age) : std::nullopt;
}

}  // namespace tolvane::agent
