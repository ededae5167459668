// All servers together: stale handoff files, and servers that run unmeasured.
#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "cli/doctor_findings.h"
#include "os/agent_directories.h"
#include "os/listeners.h"
#include "os/process.h"
#include "os/text.h"
#include "servers/attached.h"

namespace tolvane::agent {

namespace {

constexpr const char* kStartMeasured =
    "stop it and start it with 'tolvane run' or with its drop-in";

bool loadsShim(pid_t pid) {
    auto mappings = processMappings(pid);
    // A process that cannot be examined counts as measured.
    return !mappings || mapsLibrary(*mappings);
}

}  // namespace

std::set<int> portsOf(const Server& server) {
    std::set<int> ports;
    for (const std::string& address : server.handoff.listen) {
        auto port = parseInt32(address.substr(std::min(address.rfind(':') + 1, address.size())));
        if (port && *port > 0) ports.insert(*port);
    }
    return ports;
}

namespace {

void examineStale(const Server& server, std::set<pid_t>& reported, Findings& findings) {
    std::string text = fmt::format("stale: {}: {}", server.handoff.path, server.reason);
    // A server that has daemonised leaves its file at every stop.
    bool harmless = !server.ownsSegment && server.handoff.problem.empty();
    if (harmless) {
        findings.note(text, "tolvane clean");
    } else {
        findings.problem(text, "tolvane clean");
    }
    for (int port : portsOf(server)) {
        // Its workers listen on the same port.
        pid_t pid = oldestOf(listenersOn(port));
        if (pid == 0 || loadsShim(pid) || !reported.insert(pid).second) continue;
        findings.problem(fmt::format("{} (process {}) listens on port {} of a former measured "
                                     "server, without the library",
                                     processName(pid), pid, port),
                         kStartMeasured);
    }
}

// A measured server that stopped properly leaves only its prepared root.
void examinePreparedRoots(std::set<pid_t>& reported, Findings& findings) {
    DIR* directory = ::opendir(kPreparedRoots);
    if (directory == nullptr) return;
    while (dirent* entry = ::readdir(directory)) {
        std::string name = entry->d_name;
        if (name[0] == '.') continue;
        auto text = readFile(kPreparedRoots + name + "/" + kApachePidFile);
        auto pid = text ? parseInt32(trim(*text)) : std::nullopt;
        if (!pid || !processExists(*pid) || loadsShim(*pid) || !reported.insert(*pid).second)
            continue;
        findings.problem(
            fmt::format("{} (process {}) runs without the library, although {} is prepared for it",
                        processName(*pid), *pid, kPreparedRoots + name),
            kStartMeasured);
    }
    ::closedir(directory);
}

}  // namespace

void examineServers(const std::vector<Server>& servers, Findings& findings) {
    std::set<pid_t> reported;
    for (const Server& server : servers) {
        switch (server.state) {
            case RunState::kLive:
                if (server.process > 0 && !loadsShim(server.process)) {
                    reported.insert(server.process);
                    findings.problem(
                        fmt::format("server {}: its main process runs without the library",
                                    nameOf(server)),
                        kStartMeasured);
                }
                examineLiveServer(server, findings);
                break;
            case RunState::kEnding:
                findings.note(fmt::format("server {} is ending: {}", nameOf(server), server.reason),
                              "if this lasts, end the remaining processes");
                break;
            case RunState::kStale:
                examineStale(server, reported, findings);
                break;
            case RunState::kUnreadable:
                findings.problem(
                    fmt::format("{} is kept: {}", server.handoff.path, server.reason),
                    "restart the server, which writes the file anew; then 'tolvane clean'");
                break;
            case RunState::kHeld:
                break;  // a state of a collector's runs only
        }
    }
    examinePreparedRoots(reported, findings);
    if (servers.empty()) findings.note("no measured server", "tolvane run -- COMMAND");
}

}  // namespace tolvane::agent
