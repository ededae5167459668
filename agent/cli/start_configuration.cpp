#include "cli/start_configuration.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <set>

#include "cli/terminal.h"
#include "configuration/config_writer.h"
#include "os/error.h"
#include "os/process.h"
#include "segment/configuration_copy.h"
#include "servers/attached.h"
#include "servers/run_search.h"
#include "servers/server.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLongestStart = 120s;
// A control script may end shortly before the server begins to listen.
constexpr auto kAfterTheCommand = 5s;

using Identity = std::pair<std::string, std::int32_t>;  // handoff file, segment

std::set<Identity> presentRuns() {
    std::set<Identity> present;
    for (const Handoff& handoff : readHandoffs(kHandoffDirectory)) {
        present.emplace(handoff.path, handoff.shmid);
    }
    return present;
}

// The process that began to listen is the command itself, or its child, which may have
// detached and ended. All processes of the server have its root in their environment.
bool isStartedHere(const Handoff& handoff, pid_t command, const std::string& root) {
    if (handoff.pid == command) return true;
    auto servers = attachedProcesses(handoff.shmid, -1).servers;
    return std::any_of(servers.begin(), servers.end(), [&](pid_t pid) {
        auto environment = processEnvironment(pid);
        return environment && environment->count("WEB_SERVER_ROOT") != 0 &&
               environment->at("WEB_SERVER_ROOT") == root;
    });
}

std::optional<Handoff> newRun(const std::set<Identity>& earlier, pid_t command,
                              const std::string& root) {
    for (Handoff& handoff : readHandoffs(kHandoffDirectory)) {
        if (!handoff.problem.empty() || earlier.count({handoff.path, handoff.shmid}) != 0) continue;
        SegmentStatus status = segmentStatus(handoff.shmid);
        if (!status.exists || !foreignSegment(handoff, status).empty()) continue;
        if (isStartedHere(handoff, command, root)) return handoff;
    }
    return std::nullopt;
}

std::optional<Handoff> awaitRun(const std::set<Identity>& earlier, pid_t command,
                                const std::string& root, int notices) {
    auto deadline = Clock::now() + kLongestStart;
    bool commandRuns = true;
    while (Clock::now() < deadline) {
        if (auto run = newRun(earlier, command, root)) return run;
        if (commandRuns && !processExists(command)) {
            commandRuns = false;
            deadline = std::min(deadline, Clock::now() + kAfterTheCommand);
        }
        pollfd source = {notices, POLLIN, 0};
        ::poll(&source, 1, 100);
        char events[4096];
        while (notices >= 0 && ::read(notices, events, sizeof events) > 0) {
        }
    }
    return std::nullopt;
}

void configure(const Handoff& run, const StartConfiguration& configuration, bool quiet) {
    ConfigLock lock(run.path);
    Segment segment(run.shmid, run.structures, Segment::Access::kWrite);
    Uptake uptake = uptakeOf(modeOf(run, segment.parentPid()), *copyConfiguration(segment).info,
                             configuration.block->interval);
    std::int32_t version = writeConfiguration(segment, *configuration.block).version;
    keepInForceTime(run.path, uptake);
    if (quiet) return;
    Server server;
    server.handoff = run;
    fmt::print(stderr, "tolvane: server {}: configuration {} written: {}. {}\n", nameOf(server),
               version, configuration.summary, uptake.text);
}

// Keeps standard error and `notices` only, so that a caller does not wait for the end
// of this process on a pipe or a lock.
void leaveCaller(int& notices) {
    constexpr int kKept = 3;
    if (notices >= 0) notices = ::dup2(notices, kKept);
    ::close_range(notices >= 0 ? kKept + 1 : kKept, ~0U, 0);
    ::setsid();
    int nothing = ::open("/dev/null", O_RDWR);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(nothing, STDOUT_FILENO);
    if (::chdir("/") != 0) ::_exit(1);
}

[[noreturn]] void runHelper(const StartConfiguration& configuration, pid_t command,
                            const std::string& root, const std::set<Identity>& earlier, int notices,
                            bool quiet) {
    leaveCaller(notices);
    try {
        if (auto run = awaitRun(earlier, command, root, notices)) {
            configure(*run, configuration, quiet);
        } else {
            printError(
                "the server was not measured after its start, so it is not configured; see "
                "'tolvane doctor'");
        }
    } catch (const std::exception& error) {
        printError(fmt::format("the started server is not configured: {}", error.what()));
    }
    ::_exit(0);
}

}  // namespace

void configureOnceStarted(const StartConfiguration& configuration, const std::string& root,
                          bool quiet) {
    std::set<Identity> earlier = presentRuns();
    int notices = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ::inotify_add_watch(notices, kHandoffDirectory, IN_CLOSE_WRITE | IN_MOVED_TO);
    pid_t command = ::getpid();
    // By way of a child that ends at once: the server must not have an unknown child.
    pid_t child = ::fork();
    if (child < 0) fail(ErrorKind::kFailed, "fork: {}", std::strerror(errno));
    if (child == 0) {
        if (::fork() != 0) ::_exit(0);
        runHelper(configuration, command, root, earlier, notices, quiet);
    }
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    ::close(notices);
}

}  // namespace tolvane::agent
