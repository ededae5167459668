#include "support/sandbox.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "tolvane/segment_format.h"

namespace tolvane::test {
namespace fs = std::filesystem;
namespace {

void require(bool done, const char* what) {
    if (done) return;
    std::fprintf(stderr, "these tests need private namespaces; %s: %s\n", what, strerror(errno));
    std::exit(1);
}

// Keeps the identity: a server must not run as root if the caller does not.
void mapOwnUser(uid_t user, gid_t group) {
    const auto map = [](unsigned id) {
        return std::to_string(id) + " " + std::to_string(id) + " 1";
    };
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", map(user));
    writeFile("/proc/self/gid_map", map(group));
}

void raiseLoopback() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    require(ioctl(fd, SIOCSIFFLAGS, &request) == 0, "loopback");
    close(fd);
}

}  // namespace

void enterSandbox() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    constexpr int kSpaces = CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWNET;
    if (unshare(kSpaces) != 0) {
        require(unshare(kSpaces | CLONE_NEWUSER) == 0, "unshare");
        mapOwnUser(user, group);
    }
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    require(mount("tmpfs", "/opt", "tmpfs", 0, "mode=0777") == 0, "tmpfs");
    raiseLoopback();
    resetSandbox();
}

void resetSandbox() {
    require(unshare(CLONE_NEWIPC) == 0, "unshare");
    for (const auto& entry : fs::directory_iterator("/opt")) fs::remove_all(entry);
    const std::string agent = "/opt/tolvane/agent/";
    const std::string root = std::string(kServerRoot) + "/";
    for (const auto& path : {agent + "logs", agent + "config", agent + "data", root + "logs",
                             root + "conf", root + "config", root + "htdocs"}) {
        fs::create_directories(path);
        fs::permissions(path, fs::perms::all);
    }
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text << std::flush;
    if (!file) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> filesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path());
    std::ranges::sort(names);
    return names;
}

std::vector<std::string> logMessages() {
    constexpr std::size_t kStamp = sizeof "dd/mm/yyyy hh:mm:ss  " - 1;
    std::istringstream log(readFile(kLogFile));
    std::vector<std::string> messages;
    for (std::string line; std::getline(log, line);) {
        messages.push_back(line.size() < kStamp ? line : line.substr(kStamp));
    }
    return messages;
}

int systemVObjects(const std::string& kind) {
    const std::string table = readFile("/proc/sysvipc/" + kind);
    return static_cast<int>(std::ranges::count(table, '\n')) - 1;
}

std::string leftovers() {
    std::string left;
    for (const char* kind : {"shm", "sem"}) {
        if (const int count = systemVObjects(kind))
            left += std::to_string(count) + " " + kind + " ";
    }
    for (const char* directory : {"/opt/tolvane/agent/config", "/opt/tolvane/agent/data"}) {
        for (const auto& name : filesIn(directory)) left += name + " ";
    }
    return left;
}

}  // namespace tolvane::test
