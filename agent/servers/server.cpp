#include "servers/server.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "os/error.h"
#include "os/process.h"
#include "os/text.h"
#include "servers/attached.h"
#include "servers/run_search.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

void judgeAttached(Server& server, const SegmentStatus& status) {
    AttachedProcesses attached = attachedProcesses(server.handoff.shmid, server.parentPid);
    server.processes = serverProcesses(status.attached, attached);
    MainProcess main = mainProcessOf(server.parentPid, status.attached, attached);
    server.process = main.pid;
    RunJudgement judgement =
        judgeRun({server.handoff.shmid, server.version, status.removalPending, server.parentPid,
                  main.ended, server.processes, server.published, server.pending});
    server.state = judgement.state;
    server.reason = std::move(judgement.reason);
}

Server judge(const FoundRun& found) {
    Server server;
    Handoff& handoff = server.handoff = found.handoff;
    if (!found.found) {
        server.state = found.running ? RunState::kUnreadable : RunState::kStale;
        server.reason = found.reason;
        return server;
    }
    server.damage = found.damage;
    SegmentStatus status = segmentStatus(handoff.shmid);
    if (status.error != 0) {
        server.state = RunState::kLive;
        server.reason = fmt::format("segment {} cannot be read: {}", handoff.shmid,
                                    std::strerror(status.error));
        return server;
    }
    try {
        Segment segment(handoff.shmid, handoff.structures, Segment::Access::kRead);
        server.version = segment.version();
        server.parentPid = segment.parentPid();
        server.published = segment.published();
        server.pending = secondsUntilInForce(handoff.written, server.version);
    } catch (const Error& error) {
        server.reason = error.what();
        return server;
    }
    server.ownsSegment = true;
    judgeAttached(server, status);
    if (!server.damage.empty() && server.state == RunState::kLive) {
        server.reason += ", handoff file damaged: " + server.damage;
    }
    return server;
}

struct Endpoint {
    std::string address;
    std::string port;
};

Endpoint endpointOf(std::string_view text) {
    std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return {"", std::string(text)};
    std::string address(text.substr(0, colon));
    if (address == "localhost") address = "127.0.0.1";
    return {address, std::string(text.substr(colon + 1))};
}

bool isAnyAddress(const std::string& address) {
    return address == "*" || address == "0.0.0.0" || address == "_default_" || address == "::" ||
           address == "[::]";
}

enum class Match { kNone, kCovers, kExact };

// "80" and ":80" mean the port on any address, "127.0.0.1:80" also a server that listens
// on all addresses.
Match matchOf(const std::string& listen, const std::string& wanted) {
    if (listen == wanted) return Match::kExact;
    Endpoint theirs = endpointOf(listen);
    Endpoint ours = endpointOf(wanted);
    if (theirs.port != ours.port) return Match::kNone;
    if (ours.address.empty() || theirs.address == ours.address) return Match::kCovers;
    return isAnyAddress(theirs.address) ? Match::kCovers : Match::kNone;
}

Match answersTo(const Server& server, const std::string& wanted) {
    auto number = parseInt32(wanted);
    if (number && (*number == server.handoff.pid || *number == server.handoff.shmid ||
                   (*number > 0 && *number == server.parentPid))) {
        return Match::kExact;
    }
    Match best = Match::kNone;
    for (const std::string& listen : server.handoff.listen) {
        best = std::max(best, matchOf(listen, wanted));
    }
    return best;
}

std::string choices(const std::vector<const Server*>& servers) {
    std::vector<std::string> names;
    for (const Server* server : servers) names.push_back(nameOf(*server));
    return listOf(names);
}

}  // namespace

std::string nameOf(const Server& server) {
    pid_t pid = server.process > 0 ? server.process : server.handoff.pid;
    if (server.handoff.listen.empty()) return fmt::format("{}", pid);
    return fmt::format("{} ({})", pid, fmt::join(server.handoff.listen, ","));
}

std::vector<Server> findServers() {
    std::vector<Server> servers;
    for (const FoundRun& run : findRuns()) servers.push_back(judge(run));
    return servers;
}

Server selectServer(const std::vector<Server>& servers, const std::optional<std::string>& wanted) {
    std::vector<const Server*> found;
    for (Match match : {Match::kExact, Match::kCovers}) {
        if (!found.empty()) break;
        for (const Server& server : servers) {
            bool fits =
                wanted ? answersTo(server, *wanted) == match : server.state == RunState::kLive;
            if (fits) found.push_back(&server);
        }
    }
    // Earlier runs of a server may have left files with the same addresses.
    auto live = [](const Server* server) { return server->state == RunState::kLive; };
    if (std::any_of(found.begin(), found.end(), live)) {
        std::erase_if(found, [&](const Server* server) { return !live(server); });
    }
    if (found.empty() && wanted) {
        fail(ErrorKind::kNotFound, "no server {}; 'tolvane list' shows the servers",
             printable(*wanted));
    }
    if (found.empty()) {
        fail(ErrorKind::kNotFound,
             "no measured server is running; start a server with 'tolvane run -- COMMAND'");
    }
    if (found.size() > 1) {
        fail(ErrorKind::kInvalidInput, "several servers match: {}; choose with --server",
             choices(found));
    }
    if (found[0]->state != RunState::kLive) {
        fail(ErrorKind::kFailed, "server {} is {}: {}", nameOf(*found[0]),
             runStateName(found[0]->state), found[0]->reason);
    }
    return *found[0];
}

}  // namespace tolvane::agent
