#include "os/agent_directories.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "os/error.h"

namespace tolvane::agent {

namespace {

bool isDirectory(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

void makeDirectories(const std::string& path, mode_t mode) {
    for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        bool last = slash == std::string::npos;
        std::string directory = last ? path : path.substr(0, slash);
        bool made = ::mkdir(directory.c_str(), 0755) == 0;
        int error = errno;  // of mkdir, before another call changes it
        if (made) {
            // Independent of the caller's umask.
            ::chmod(directory.c_str(), last ? mode : 0755);
        } else if (!isDirectory(directory)) {
            fail(ErrorKind::kFailed, "{}: cannot be created: {}", directory, std::strerror(error));
        }
        if (last) return;
    }
}

void makeAgentDirectories() {
    for (const AgentDirectory& directory : kAgentDirectories) {
        makeDirectories(directory.path, directory.mode);
    }
    int log = ::open(kLogFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (log < 0) return;  // it exists already
    ::fchmod(log, 0666);
    ::close(log);
}

}  // namespace tolvane::agent
