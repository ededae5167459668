#include "servers/handoff.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "os/error.h"
#include "os/text.h"
#include "tolvane/limits.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

namespace {

constexpr std::size_t kMaxHandoffSize = 64U << 10;

// Maximum number of addresses, and of bytes per address. More would make messages
// unreadable.
constexpr std::size_t kMaxListen = 2 * kMaxAddresses;
constexpr std::size_t kMaxText = 55;

// The size of a segment is a signed 32-bit number, which limits the records of a
// server.
constexpr std::int32_t kMaxStructures = static_cast<std::int32_t>(
    (static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()) - kConfigSize) /
    kRecordSize);

std::vector<std::string> splitAddresses(std::string_view text) {
    std::vector<std::string> addresses;
    while (!text.empty() && addresses.size() < kMaxListen) {
        std::size_t comma = std::min(text.find(','), text.size());
        if (comma > 0) addresses.push_back(printable(text.substr(0, std::min(comma, kMaxText))));
        text.remove_prefix(std::min(comma + 1, text.size()));
    }
    return addresses;
}

// The number after the key, or a description of the fault.
bool readNumber(std::string_view line, std::string_view key, std::int32_t low, std::int32_t high,
                std::int32_t& value, std::string& problem) {
    auto number = parseInt32(trim(line.substr(key.size())));
    if (number && *number >= low && *number <= high) {
        value = *number;
        return true;
    }
    problem = fmt::format("\"{}\" is not a number from {} to {}",
                          printable(line.substr(0, kMaxText)), low, high);
    return false;
}

}  // namespace

void parseHandoff(std::string_view text, Handoff& handoff) {
    bool haveShmid = false;
    bool haveStructures = false;
    for (std::string_view line : splitLines(text)) {
        auto starts = [line](std::string_view key) { return line.substr(0, key.size()) == key; };
        constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
        if (starts("Listen=")) {
            handoff.listen = splitAddresses(trim(line.substr(7)));
        } else if (starts("Shmid=")) {
            haveShmid = readNumber(line, "Shmid=", 0, kMax, handoff.shmid, handoff.problem);
        } else if (starts("Server_Type=")) {
            handoff.serverType = printable(trim(line.substr(12)).substr(0, kMaxText));
        } else if (starts("Structures=")) {
            haveStructures = readNumber(line, "Structures=", 1, kMaxStructures, handoff.structures,
                                        handoff.problem);
        }
    }
    if (!handoff.problem.empty()) return;
    if (!haveShmid) {
        handoff.problem = "the Shmid= line is missing";
    } else if (!haveStructures) {
        handoff.problem = "the Structures= line is missing";
    }
}

std::time_t writtenAt(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

std::vector<Handoff> readHandoffs(const std::string& directory) {
    std::vector<Handoff> handoffs;
    DIR* open = ::opendir(directory.c_str());
    if (open == nullptr) {
        if (errno == ENOENT) return handoffs;
        fail(ErrorKind::kFailed, "{}: cannot be read: {}", directory, std::strerror(errno));
    }
    std::string_view prefix = kHandoffPrefix;
    while (dirent* entry = ::readdir(open)) {
        std::string_view name = entry->d_name;
        if (name.substr(0, prefix.size()) != prefix) continue;
        auto pid = parseInt32(name.substr(prefix.size()));
        // No server writes leading zeros.
        if (!pid || *pid <= 0 || std::to_string(*pid) != name.substr(prefix.size())) continue;
        Handoff handoff;
        handoff.path = directory + std::string(name);
        handoff.pid = *pid;
        struct stat status {};
        // A server writes regular files only.
        if (::lstat(handoff.path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        handoff.written = status.st_mtime;
        if (auto text = readFile(handoff.path, kMaxHandoffSize)) {
            parseHandoff(*text, handoff);
        } else {
            handoff.problem = fmt::format("cannot be read: {}", std::strerror(errno));
        }
        handoffs.push_back(std::move(handoff));
    }
    ::closedir(open);
    std::sort(handoffs.begin(), handoffs.end(),
              [](const Handoff& a, const Handoff& b) { return a.pid < b.pid; });
    return handoffs;
}

}  // namespace tolvane::agent
