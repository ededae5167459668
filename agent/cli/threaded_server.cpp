#include "cli/threaded_server.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "os/process.h"
#include "os/text.h"
#include "servers/attached.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

bool olderThanServer(const std::string& file, const SegmentStatus& segment) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 && status.st_mtime <= segment.created;
}

// "event", when the process has loaded Apache's mod_mpm_event.so.
std::string loadedModule(pid_t pid) {
    constexpr std::string_view kPrefix = "mod_mpm_";
    for (const std::string& line : processMappings(pid).value_or(std::vector<std::string>{})) {
        std::string_view name = baseName(line);
        std::size_t end = name.find(".so");
        if (name.starts_with(kPrefix) && end != name.npos) {
            return std::string(name.substr(kPrefix.size(), end - kPrefix.size()));
        }
    }
    return "";
}

bool hasThreads(pid_t pid) {
    for (std::string_view line :
         splitLines(readFile(fmt::format("/proc/{}/status", pid)).value_or(""))) {
        if (line.starts_with("Threads:")) return parseInt32(trim(line.substr(8))).value_or(1) > 1;
    }
    return false;
}

// The process in a log line that reports the fault; 0 for any other line and for
// lines from before the server's start.
pid_t accusedIn(std::string_view line, std::time_t started) {
    constexpr std::string_view kSaid =
        "  This server has threads but was taken for one connection per process: process ";
    constexpr std::time_t kTimeZones = 86400;  // the server's time zone may differ
    std::size_t at = line.find(kSaid);
    if (at == line.npos) return 0;
    tm when{};
    when.tm_isdst = -1;
    const std::string date(line.substr(0, at));
    if (::strptime(date.c_str(), "%d/%m/%Y %H:%M:%S", &when) == nullptr) return 0;
    if (std::mktime(&when) + kTimeZones < started) return 0;
    line.remove_prefix(at + kSaid.size());
    return parseInt32(line.substr(0, line.find_first_not_of("0123456789"))).value_or(0);
}

// A process of the server that the log accuses and that has threads; 0 without any.
// The log alone is not sufficient, because any user can write to it.
pid_t accusedProcess(const Server& server, std::time_t started) {
    auto log = readFile(kLogFile, 64U << 20);
    if (!log) return 0;
    std::vector<pid_t> accused;
    for (std::string_view line : splitLines(*log)) {
        if (pid_t pid = accusedIn(line, started)) accused.push_back(pid);
    }
    if (accused.empty()) return 0;
    for (pid_t pid : attachedProcesses(server.handoff.shmid, server.parentPid).servers) {
        bool named = std::find(accused.begin(), accused.end(), pid) != accused.end();
        if (named && hasThreads(pid)) return pid;
    }
    return 0;
}

}  // namespace

std::optional<ThreadsFault> threadsFault(const Server& server) {
    if (server.handoff.serverType != "APACHE" || server.process <= 0) return std::nullopt;
    auto environment = processEnvironment(server.process);
    if (!environment || environment->count("WEB_SERVER_ROOT") == 0) return std::nullopt;
    std::string file = environment->at("WEB_SERVER_ROOT") + "/" + kApacheModuleFile;
    SegmentStatus segment = segmentStatus(server.handoff.shmid);
    bool named = isThreadedModule(moduleNamedIn(file));
    if (named && olderThanServer(file, segment)) return std::nullopt;

    std::string module = loadedModule(server.process);
    pid_t accused = accusedProcess(server, segment.created);
    if (accused == 0 && !isThreadedModule(module)) return std::nullopt;
    ThreadsFault fault;
    fault.text = "it has threads but was taken for one connection per process";
    if (accused != 0) fault.text += fmt::format("; process {} has stopped measuring", accused);
    if (named) {
        fault.remedy = fmt::format("restart it: {} was written after its start", file);
    } else {
        fault.remedy = fmt::format("echo {} > {}, then restart it, or start it with 'tolvane run'",
                                   isThreadedModule(module) ? module : "worker", file);
    }
    return fault;
}

}  // namespace tolvane::agent
