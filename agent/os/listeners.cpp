#include "os/listeners.h"

#include <dirent.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "os/process.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

constexpr char kListens[] = "0A";
constexpr char kTimeWait[] = "06";

struct Socket {
    std::string address;  // as in the table: hexadecimal, words in the machine's order
    int port;
    std::string state;
    std::string link;  // its name in /proc/PID/fd
};

// The TCP sockets of the process's network namespace. A line reads
//   0: 00000000:0050 00000000:0000 0A 00000000:00000000 00:00000000 ... 0 0 12345
void forEachSocket(const std::string& process, const std::function<void(const Socket&)>& use) {
    constexpr std::size_t kLocalAddress = 1;
    constexpr std::size_t kState = 3;
    constexpr std::size_t kInode = 9;
    for (const char* table : {"tcp", "tcp6"}) {
        auto text = readFile(fmt::format("/proc/{}/net/{}", process, table), 64U << 20);
        for (std::string_view line : splitLines(text.value_or(""))) {
            auto fields = splitWords(line);
            if (fields.size() <= kInode) continue;
            const std::string& local = fields[kLocalAddress];
            std::size_t colon = local.find(':');
            if (colon == std::string::npos) continue;
            int port = static_cast<int>(std::strtol(local.c_str() + colon + 1, nullptr, 16));
            use({local.substr(0, colon), port, fields[kState], "socket:[" + fields[kInode] + "]"});
        }
    }
}

std::set<std::string> descriptorsOf(pid_t pid) {
    std::set<std::string> links;
    std::string directory = fmt::format("/proc/{}/fd", pid);
    DIR* open = ::opendir(directory.c_str());
    if (open == nullptr) return links;
    while (dirent* entry = ::readdir(open)) {
        char target[64];
        std::string path = directory + "/" + entry->d_name;
        ssize_t length = ::readlink(path.c_str(), target, sizeof target);
        if (length > 0) links.emplace(target, static_cast<std::size_t>(length));
    }
    ::closedir(open);
    return links;
}

// "0100007F" is 127.0.0.1; an IPv4 address in IPv6 is the last word.
std::string addressText(const std::string& address) {
    constexpr std::size_t kWord = 8;
    const bool mapped = address.starts_with("0000000000000000FFFF0000");
    if (address.size() != kWord && !mapped) return "*";
    auto word =
        static_cast<unsigned>(std::strtoul(address.c_str() + address.size() - kWord, nullptr, 16));
    if (word == 0) return "*";
    return fmt::format("{}.{}.{}.{}", word & 0xff, word >> 8 & 0xff, word >> 16 & 0xff, word >> 24);
}

}  // namespace

std::vector<pid_t> listenersOn(int port) {
    std::vector<pid_t> listeners;
    std::set<std::string> sockets;
    forEachSocket("self", [&](const Socket& socket) {
        if (socket.state == kListens && socket.port == port) sockets.insert(socket.link);
    });
    if (sockets.empty()) return listeners;
    for (pid_t pid : allProcesses()) {
        std::set<std::string> held = descriptorsOf(pid);
        bool listens = std::any_of(held.begin(), held.end(), [&](const std::string& link) {
            return sockets.count(link) != 0;
        });
        if (listens) listeners.push_back(pid);
    }
    return listeners;
}

std::vector<std::string> listenAddressesOf(pid_t pid) {
    std::vector<std::string> addresses;
    if (pid <= 0) return addresses;
    std::set<std::string> held = descriptorsOf(pid);
    forEachSocket(std::to_string(pid), [&](const Socket& socket) {
        if (socket.state != kListens || held.count(socket.link) == 0) return;
        std::string address = fmt::format("{}:{}", addressText(socket.address), socket.port);
        bool known = std::find(addresses.begin(), addresses.end(), address) != addresses.end();
        if (!known) addresses.push_back(address);
    });
    return addresses;
}

std::size_t endedConnections(const std::set<int>& ports) {
    std::size_t ended = 0;
    forEachSocket("self", [&](const Socket& socket) {
        if (socket.state == kTimeWait && ports.count(socket.port) != 0) ++ended;
    });
    return ended;
}

}  // namespace tolvane::agent
