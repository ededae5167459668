#include "os/listeners.h"

#include <dirent.h>
#include <fmt/format.h>
#include <unistd.h>

#include <set>
#include <string>

#include "os/process.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

// Inode numbers of the sockets that listen on the port. A line reads
//   0: 00000000:0050 00000000:0000 0A 00000000:00000000 00:00000000 ... 0 0 12345
std::set<std::string> listeningSockets(int port) {
    constexpr std::size_t kLocalAddress = 1;
    constexpr std::size_t kState = 3;
    constexpr std::size_t kInode = 9;
    std::set<std::string> sockets;
    std::string wanted = fmt::format(":{:04X}", port);
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        auto text = readFile(table);
        if (!text) continue;
        for (std::string_view line : splitLines(*text)) {
            auto fields = splitWords(line);
            if (fields.size() <= kInode || fields[kState] != "0A") continue;
            const std::string& local = fields[kLocalAddress];
            if (local.size() < wanted.size()) continue;
            if (local.compare(local.size() - wanted.size(), wanted.size(), wanted) != 0) continue;
            sockets.insert("socket:[" + fields[kInode] + "]");
        }
    }
    return sockets;
}

bool holdsOneOf(pid_t pid, const std::set<std::string>& sockets) {
    std::string directory = fmt::format("/proc/{}/fd", pid);
    DIR* open = ::opendir(directory.c_str());
    if (open == nullptr) return false;
    bool found = false;
    while (dirent* entry = ::readdir(open)) {
        char target[64];
        std::string path = directory + "/" + entry->d_name;
        ssize_t length = ::readlink(path.c_str(), target, sizeof target);
        if (length <= 0) continue;
        found = found || sockets.count(std::string(target, static_cast<std::size_t>(length))) > 0;
    }
    ::closedir(open);
    return found;
}

}  // namespace

std::vector<pid_t> listenersOn(int port) {
    std::vector<pid_t> listeners;
    std::set<std::string> sockets = listeningSockets(port);
    if (sockets.empty()) return listeners;
    for (pid_t pid : allProcesses()) {
        if (holdsOneOf(pid, sockets)) listeners.push_back(pid);
    }
    return listeners;
}

}  // namespace tolvane::agent
