#include "servers/uptake.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

#include "os/process.h"
#include "os/text.h"
#include "segment/segment.h"
#include "servers/attached.h"

namespace tolvane::agent {

namespace {

// A monitor thread looks for a newer configuration every second, and a prefork process
// that counts messages at its next request.
constexpr int kQuick = 2;
// A longer sleep ends early, after the new interval, or after a minute.
constexpr std::int32_t kLongInterval = 3600;

std::int32_t intervalOrDefault(std::int32_t interval) {
    return interval > 0 ? interval : kDefaultInterval;
}

int nextPublication(std::int32_t interval, std::int32_t newInterval) {
    if (intervalOrDefault(interval) <= kLongInterval) return intervalOrDefault(interval);
    newInterval = intervalOrDefault(newInterval);
    return newInterval > kLongInterval ? kDefaultInterval : newInterval;
}

}  // namespace

// The last line of the file is decisive, as in the library.
std::string moduleNamedIn(const std::string& file) {
    std::string module;
    for (std::string_view line : splitLines(readFile(file).value_or(""))) {
        auto words = splitWords(line);
        if (!words.empty()) module = lower(words[0]);
    }
    return module;
}

bool isThreadedModule(const std::string& module) {
    return !module.empty() && module != "none" && module != "prefork";
}

ServerMode modeOf(const Handoff& handoff, pid_t mainProcess) {
    ServerMode mode;
    pid_t process = mainProcess > 0 && processExists(mainProcess)
                        ? mainProcess
                        : oldestOf(attachedProcesses(handoff.shmid, mainProcess).servers);
    auto environment = process > 0 ? processEnvironment(process) : std::nullopt;
    if (!environment || environment->count("WEB_SERVER_ROOT") == 0) return mode;
    auto& variables = *environment;
    mode.known = true;
    mode.messages = variables["TOLVANE_COUNTING"] == "messages";
    mode.sendCalls = std::max(parseInt32(variables["REQUEST_INTERVAL"]).value_or(5), 1);
    mode.threaded =
        handoff.serverType == "NETSCAPE" ||
        isThreadedModule(moduleNamedIn(variables["WEB_SERVER_ROOT"] + "/" + kApacheModuleFile));
    return mode;
}

Uptake uptakeOf(const ServerMode& mode, const ConfigInfo& before, std::int32_t newInterval) {
    // Processes without a configuration look for the first one every second.
    bool quick = mode.messages || highestVersion(before.version) == 0;
    int seconds = quick ? kQuick : nextPublication(before.interval, newInterval);
    if (!mode.known) {
        return {seconds,
                fmt::format("In force within {} s in a threaded server; a prefork process takes "
                            "it at its next publication.",
                            seconds)};
    }
    if (mode.threaded || mode.messages) {
        return {seconds, fmt::format("In force within {} s.", seconds)};
    }
    return {std::nullopt,
            fmt::format("In force in each process at its next publication, after at most {} of "
                        "its send calls.",
                        mode.sendCalls)};
}

std::string publicationText(const ServerMode& mode, std::int32_t interval) {
    std::string byTime =
        fmt::format("a threaded server publishes every {} s", intervalOrDefault(interval));
    if (!mode.known) return byTime + ", a prefork process at its publications only";
    if (mode.threaded) return byTime;
    if (mode.messages) return "a process publishes when its connection closes";
    return fmt::format("a process publishes after {} send calls", mode.sendCalls);
}

void keepInForceTime(const std::string& handoffPath, const Uptake& uptake) {
    timespec times[2] = {{0, UTIME_OMIT}, {std::time(nullptr) + uptake.seconds.value_or(0), 0}};
    ::utimensat(AT_FDCWD, handoffPath.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

int secondsUntilInForce(std::time_t handoffWritten, std::int32_t version) {
    constexpr std::time_t kLongest = kLongInterval;
    std::time_t left = handoffWritten - std::time(nullptr);
    // The clock may have been set back.
    return version <= 0 || left <= 0 || left > kLongest ? 0 : static_cast<int>(left);
}

}  // namespace tolvane::agent
