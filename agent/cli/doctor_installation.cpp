// Directories, the log, the lock file, libraries and the kernel's limits.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "cli/doctor_findings.h"
#include "os/agent_directories.h"
#include "os/system_limits.h"
#include "os/text.h"
#include "servers/library.h"
#include "servers/removal_lock.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

namespace {

void examineDirectories(Findings& findings) {
    bool allThere = true;
    for (const AgentDirectory& directory : kAgentDirectories) {
        struct stat status {};
        std::string remedy = fmt::format("install -d -m {:o} {}", directory.mode, directory.path);
        if (::stat(directory.path, &status) != 0) {
            findings.problem(fmt::format("{} for {}: {}", directory.path, directory.purpose,
                                         std::strerror(errno)),
                             remedy);
            allThere = false;
        } else if (!S_ISDIR(status.st_mode)) {
            findings.problem(fmt::format("{} is not a directory", directory.path),
                             "move it away, then " + remedy);
            allThere = false;
        } else if ((directory.mode & S_IXOTH) != 0 && (status.st_mode & S_IXOTH) == 0) {
            findings.problem(fmt::format("{} is not accessible to worker processes (mode {:o})",
                                         directory.path, status.st_mode & 07777),
                             fmt::format("chmod {:o} {}", directory.mode, directory.path));
            allThere = false;
        }
    }
    if (allThere) findings.ok(fmt::format("directories below {}", kAgentDirectory));
}

// The log is opened with O_CREAT, which the kernel may refuse in a sticky directory
// for a file of another user.
bool kernelGuardsStickyFiles(const struct stat& log, const struct stat& directory) {
    auto setting = readFile("/proc/sys/fs/protected_regular");
    bool guarded = setting && parseInt32(trim(*setting)).value_or(0) > 0;
    return guarded && (directory.st_mode & S_ISVTX) != 0 && log.st_uid != directory.st_uid;
}

std::string lastComplaintOfToday() {
    auto log = readFile(kLogFile, 64U << 20);
    if (!log) return "";
    std::string today = fmt::format("{:%d/%m/%Y}", fmt::localtime(std::time(nullptr)));
    std::string found;
    for (std::string_view line : splitLines(*log)) {
        if (line.substr(0, today.size()) != today) continue;
        for (std::string_view word :
             {"FAILED", "oops", "Could not", "cannot be created", "cannot create", "cannot open",
              "cannot unlock", "Error", "No port found", "out of range"}) {
            if (line.find(word) != line.npos) found = std::string(trim(line));
        }
    }
    return found;
}

void examineLog(Findings& findings) {
    struct stat log {};
    if (::lstat(kLogFile, &log) != 0) {
        if (errno != ENOENT) {
            findings.problem(fmt::format("{}: {}", kLogFile, std::strerror(errno)),
                             "check the permissions of its directory");
        }
        return;
    }
    // Its directory is writable for all users: with a link there, a remedy such as
    // chmod would change another file.
    if (!S_ISREG(log.st_mode) || log.st_nlink != 1) {
        findings.problem(
            fmt::format("{} is not a regular file with one link, so no server writes to it",
                        kLogFile),
            fmt::format("rm {}", kLogFile));
        return;
    }
    struct stat directory {};
    std::string path = kLogFile;
    ::stat(path.substr(0, path.rfind('/')).c_str(), &directory);
    if ((log.st_mode & S_IWOTH) == 0) {
        findings.problem(fmt::format("{} is not writable for worker processes (mode {:o})", path,
                                     log.st_mode & 07777),
                         "chmod 666 " + path);
    } else if (kernelGuardsStickyFiles(log, directory)) {
        findings.problem(
            fmt::format("{} belongs to user {}, and fs.protected_regular prevents other "
                        "users from opening it",
                        path, log.st_uid),
            fmt::format("chown {} {}", directory.st_uid, path));
    } else {
        findings.ok(fmt::format("log {}", path));
    }
    std::string complaint = lastComplaintOfToday();
    if (!complaint.empty()) findings.note("in the log today: " + complaint, "see " + path);
}

void examineLibraries(Findings& findings) {
    Libraries libraries = findLibraries();
    for (auto [size, preset] :
         {std::pair{WordSize::k64, "release"}, {WordSize::k32, "release32"}}) {
        int bits = static_cast<int>(size);
        auto found = libraries.find(size);
        if (found != libraries.end()) {
            findings.ok(fmt::format("{}-bit library {}", bits, found->second));
            continue;
        }
        findings.note(
            fmt::format("no {}-bit library is installed with this program", bits),
            fmt::format("for {}-bit servers: cmake --preset {} && cmake --build --preset {}", bits,
                        preset, preset));
    }
}

void examineLock(Findings& findings) {
    if (auto age = abandonedLockAge()) {
        findings.problem(
            fmt::format("{} has been held for {} s, so no server can remove its segment", kLockFile,
                        *age),
            "tolvane clean");
    }
}

void examineLimits(Findings& findings) {
    auto limits = readSystemLimits();
    if (!limits) {
        findings.problem("the kernel has no System V shared memory or semaphores",
                         "use a kernel with CONFIG_SYSVIPC");
        return;
    }
    bool enough = true;
    auto need = [&](bool holds, const std::string& text, const std::string& remedy) {
        if (!holds) findings.problem(text, remedy);
        enough &= holds;
    };
    // The shim's own choice for a server with many processes.
    constexpr std::uint64_t kUsualRecords = 3;
    need(limits->maxSegmentBytes >= segmentSize(kUsualRecords),
         fmt::format("the maximum size of a segment is {} bytes, a server needs {}",
                     limits->maxSegmentBytes, segmentSize(kUsualRecords)),
         "raise kernel.shmmax");
    need(limits->usedSegments < limits->maxSegments,
         fmt::format("all {} segments are in use", limits->maxSegments),
         "tolvane clean, or raise kernel.shmmni");
    need(limits->usedSemaphoreSets + kUsualRecords <= limits->maxSemaphoreSets &&
             limits->usedSemaphores + kUsualRecords <= limits->maxSemaphores,
         fmt::format("{} of {} semaphore sets are in use, and a server needs {}",
                     limits->usedSemaphoreSets, limits->maxSemaphoreSets, kUsualRecords),
         "tolvane clean, or raise the fourth number of kernel.sem");
    if (enough) {
        findings.ok(
            fmt::format("System V limits: {} of {} segments, {} of {} semaphore sets in use",
                        limits->usedSegments, limits->maxSegments, limits->usedSemaphoreSets,
                        limits->maxSemaphoreSets));
    }
}

}  // namespace

void examineInstallation(Findings& findings) {
    examineDirectories(findings);
    examineLog(findings);
    examineLibraries(findings);
    examineLock(findings);
    examineLimits(findings);
}

}  // namespace tolvane::agent
