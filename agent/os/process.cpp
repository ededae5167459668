#include "os/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "os/error.h"
#include "os/text.h"
#include "tolvane/paths.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
    int ends[2] = {-1, -1};
    Pipe() {
        if (::pipe2(ends, O_CLOEXEC) != 0)
            fail(ErrorKind::kFailed, "pipe: {}", std::strerror(errno));
    }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void closeEnd(int which) {
        if (ends[which] >= 0) ::close(ends[which]);
        ends[which] = -1;
    }
};

volatile pid_t runningChild = 0;

void endWithChild(int signal) {
    if (runningChild > 0) ::kill(-runningChild, SIGKILL);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

// The child has its own process group, so that the time limit also ends the
// processes it has started. The terminal does not signal that group.
class ChildGuard {
  public:
    ChildGuard() {
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            before_[i] = ::signal(kSignals[i], endWithChild);
            if (before_[i] == SIG_IGN) ::signal(kSignals[i], SIG_IGN);
        }
    }
    ~ChildGuard() {
        runningChild = 0;
        for (std::size_t i = 0; i < kSignals.size(); ++i) ::signal(kSignals[i], before_[i]);
    }
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;

  private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};
    std::array<void (*)(int), kSignals.size()> before_{};
};

[[noreturn]] void becomeChild(const std::vector<std::string>& command,
                              const std::map<std::string, std::string>& environment, Pipe& output,
                              Pipe& errors) {
    ::setpgid(0, 0);
    ::signal(SIGPIPE, SIG_DFL);
    int nothing = ::open("/dev/null", O_RDONLY);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(output.ends[1], STDOUT_FILENO);
    ::dup2(errors.ends[1], STDERR_FILENO);
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
}

// Reads the available data; false at the end of the file.
bool drain(int fd, std::string& into) {
    char buffer[8192];
    ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0) return errno == EINTR || errno == EAGAIN;
    if (into.size() < kMaxTextFile) into.append(buffer, static_cast<std::size_t>(got));
    return got > 0;
}

// Reads both streams to their ends; false if the time limit comes first.
bool collect(Pipe& output, Pipe& errors, ProcessAnswer& answer, Clock::time_point deadline) {
    while (output.ends[0] >= 0 || errors.ends[0] >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd streams[2] = {{output.ends[0], POLLIN, 0}, {errors.ends[0], POLLIN, 0}};
        if (::poll(streams, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) return false;
        if (streams[0].revents != 0 && !drain(output.ends[0], answer.output)) output.closeEnd(0);
        if (streams[1].revents != 0 && !drain(errors.ends[0], answer.errors)) errors.closeEnd(0);
    }
    return true;
}

std::string procPath(pid_t pid, const char* file) {
    return fmt::format("/proc/{}/{}", pid, file);
}

std::string linkTarget(const std::string& path) {
    char target[PATH_MAX];
    ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace

ProcessAnswer runAndListen(const std::vector<std::string>& command,
                           const std::map<std::string, std::string>& environment,
                           std::chrono::seconds limit) {
    Pipe output;
    Pipe errors;
    ChildGuard guard;
    pid_t child = ::fork();
    if (child < 0) fail(ErrorKind::kFailed, "fork: {}", std::strerror(errno));
    if (child == 0) becomeChild(command, environment, output, errors);
    ::setpgid(child, child);
    runningChild = child;
    output.closeEnd(1);
    errors.closeEnd(1);
    ProcessAnswer answer;
    answer.timedOut = !collect(output, errors, answer, Clock::now() + limit);
    if (answer.timedOut) ::kill(-child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) answer.exitStatus = WEXITSTATUS(status);
    if (answer.exitStatus == 127 && answer.output.empty() && answer.errors.empty()) {
        fail(ErrorKind::kFailed, "{}: cannot be started", command[0]);
    }
    return answer;
}

bool processExists(pid_t pid) {
    if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
    // The state follows the name, which may contain any character and ends at the
    // last parenthesis.
    auto status = readFile(procPath(pid, "stat"));
    std::size_t name = status ? status->rfind(')') : std::string::npos;
    return name == std::string::npos || name + 2 >= status->size() || (*status)[name + 2] != 'Z';
}

std::vector<pid_t> allProcesses() {
    std::vector<pid_t> processes;
    DIR* directory = ::opendir("/proc");
    if (directory == nullptr) return processes;
    while (dirent* entry = ::readdir(directory)) {
        if (auto pid = parseInt32(entry->d_name)) processes.push_back(*pid);
    }
    ::closedir(directory);
    return processes;
}

pid_t oldestOf(const std::vector<pid_t>& processes) {
    for (pid_t pid : processes) {
        auto parent = parentOf(pid);
        if (parent && std::find(processes.begin(), processes.end(), *parent) == processes.end()) {
            return pid;
        }
    }
    return processes.empty() ? 0 : processes.front();
}

std::optional<pid_t> parentOf(pid_t pid) {
    auto status = readFile(procPath(pid, "status"));
    if (!status) return std::nullopt;
    for (std::string_view line : splitLines(*status)) {
        if (line.substr(0, 5) == "PPid:") return parseInt32(trim(line.substr(5)));
    }
    return std::nullopt;
}

std::vector<pid_t> namespaceIds(pid_t pid) {
    std::vector<pid_t> ids;
    auto status = readFile(procPath(pid, "status"));
    if (!status) return ids;
    for (std::string_view line : splitLines(*status)) {
        if (line.substr(0, 6) != "NSpid:") continue;
        for (const std::string& word : splitWords(line.substr(6))) {
            ids.push_back(parseInt32(word).value_or(0));
        }
    }
    return ids;
}

std::string processName(pid_t pid) {
    auto name = readFile(procPath(pid, "comm"));
    return name ? printable(trim(*name)) : "?";
}

std::optional<std::map<std::string, std::string>> processEnvironment(pid_t pid) {
    auto block = readFile(procPath(pid, "environ"));
    if (!block) return std::nullopt;
    std::map<std::string, std::string> variables;
    for (std::size_t at = 0; at < block->size();) {
        std::size_t end = std::min(block->find('\0', at), block->size());
        std::string entry = block->substr(at, end - at);
        if (std::size_t equals = entry.find('='); equals != std::string::npos) {
            variables.emplace(entry.substr(0, equals), entry.substr(equals + 1));
        }
        at = end + 1;
    }
    return variables;
}

std::optional<std::vector<std::string>> processMappings(pid_t pid) {
    auto maps = readFile(procPath(pid, "maps"), 16U << 20);
    if (!maps) return std::nullopt;
    std::vector<std::string> lines;
    for (std::string_view line : splitLines(*maps)) lines.emplace_back(line);
    return lines;
}

bool mapsLibrary(const std::vector<std::string>& mappings) {
    return std::any_of(mappings.begin(), mappings.end(), [](const std::string& line) {
        return line.find(kLibraryName) != std::string::npos;
    });
}

bool hasShimLoaded(pid_t pid) {
    auto mappings = processMappings(pid);
    return mappings && mapsLibrary(*mappings);
}

bool sharesIpcNamespace(pid_t pid) {
    std::string theirs = linkTarget(procPath(pid, "ns/ipc"));
    return theirs.empty() || theirs == linkTarget("/proc/self/ns/ipc");
}

}  // namespace tolvane::agent
