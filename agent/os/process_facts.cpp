#include "os/process_facts.h"

#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "os/text.h"

namespace tolvane::agent {

namespace {

constexpr char kStatFile[] = "/proc/self/stat";

double secondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double clockSeconds(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// The fields that follow the process's name, which may contain blanks.
std::vector<std::string> statFields() {
    std::string text = readFile(kStatFile).value_or("");
    std::size_t nameEnd = text.rfind(')');
    return nameEnd == std::string::npos ? std::vector<std::string>()
                                        : splitWords(std::string_view(text).substr(nameEnd + 1));
}

// The kernel counts in ticks since boot; the difference of two clocks converts
// that to Unix time.
double startTime(const std::string& ticks) {
    double sinceBoot =
        std::strtod(ticks.c_str(), nullptr) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    return clockSeconds(CLOCK_REALTIME) - clockSeconds(CLOCK_BOOTTIME) + sinceBoot;
}

}  // namespace

ProcessFacts readProcessFacts() {
    // Indices of the fields, from the process's state on.
    constexpr std::size_t kStarted = 19;
    constexpr std::size_t kResidentPages = 21;
    ProcessFacts facts;
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    facts.cpuSeconds = secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime);
    if (std::vector<std::string> fields = statFields(); fields.size() > kResidentPages) {
        // Once: the difference of the clocks changes, and a changed start time would
        // look like a restart.
        static const double started = startTime(fields[kStarted]);
        facts.started = started;
        facts.residentBytes = std::strtoull(fields[kResidentPages].c_str(), nullptr, 10) *
                              static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    }
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator("/proc/self/fd", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        ++facts.openDescriptors;
    }
    // A descriptor of the listing itself is included.
    if (facts.openDescriptors > 0) --facts.openDescriptors;
    return facts;
}

}  // namespace tolvane::agent
