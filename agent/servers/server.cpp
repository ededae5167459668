#include "servers/server.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "os/error.h"
#include "os/process.h"
#include "os/text.h"
#include "servers/attached.h"
#include "servers/created_segment.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

// Seconds by which a handoff file may appear older than its segment, because the two
// times come from clocks of different resolution.
constexpr std::time_t kClockSlack = 2;

void judgeAttached(Server& server, const SegmentStatus& status) {
    AttachedProcesses attached = attachedProcesses(server.handoff.shmid, server.parentPid);
    server.processes = serverProcesses(status.attached, attached);
    bool mainRuns = server.parentPid > 0 && processExists(server.parentPid);
    server.process = mainRuns ? server.parentPid : oldestOf(attached.servers);
    RunJudgement judgement =
        judgeRun({server.handoff.shmid, server.version, status.removalPending, server.parentPid,
                  server.processes, server.published, server.pending});
    server.state = judgement.state;
    server.reason = std::move(judgement.reason);
}

// Why the handoff file cannot identify the server's segment; empty if it can.
std::string misleads(const Handoff& handoff, const SegmentStatus& status) {
    if (!handoff.problem.empty()) return "the handoff file is damaged: " + handoff.problem;
    if (!status.exists) return fmt::format("segment {} no longer exists", handoff.shmid);
    return status.error != 0 ? "" : foreignSegment(handoff, status);
}

Server judge(const Handoff& found) {
    Server server;
    Handoff& handoff = server.handoff = found;
    SegmentStatus status = segmentStatus(handoff.shmid);
    server.reason = misleads(handoff, status);
    if (!server.reason.empty()) {
        if (!leadToCreatedSegment(handoff)) return server;
        server.misled = server.reason;
        status = segmentStatus(handoff.shmid);
    }
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
    return server;
}

bool answersTo(const Server& server, const std::string& wanted) {
    if (std::find(server.handoff.listen.begin(), server.handoff.listen.end(), wanted) !=
        server.handoff.listen.end()) {
        return true;
    }
    auto number = parseInt32(wanted);
    return number && (*number == server.handoff.pid || *number == server.handoff.shmid ||
                      (*number > 0 && *number == server.parentPid));
}

std::string choices(const std::vector<const Server*>& servers) {
    std::vector<std::string> names;
    for (const Server* server : servers) names.push_back(nameOf(*server));
    return listOf(names);
}

}  // namespace

std::string foreignSegment(const Handoff& handoff, const SegmentStatus& status) {
    std::size_t wanted = segmentSize(static_cast<std::size_t>(handoff.structures));
    if (status.size != wanted) {
        return fmt::format(
            "segment {} belongs to another program: it has {} bytes where {} need {}",
            handoff.shmid, status.size,
            plural(static_cast<std::size_t>(handoff.structures), "record"), wanted);
    }
    if (!status.openToAll) {
        return fmt::format("segment {} belongs to another program: it is not open to all users",
                           handoff.shmid);
    }
    // A creator in another process namespace has the id 0.
    if (status.creator != 0 && status.creator != handoff.pid) {
        return fmt::format("segment {} was created by process {}", handoff.shmid, status.creator);
    }
    if (handoff.written + kClockSlack < status.created) {
        return fmt::format("segment {} is newer than the handoff file", handoff.shmid);
    }
    return "";
}

std::string nameOf(const Server& server) {
    pid_t pid = server.process > 0 ? server.process : server.handoff.pid;
    if (server.handoff.listen.empty()) return fmt::format("{}", pid);
    return fmt::format("{} ({})", pid, fmt::join(server.handoff.listen, ","));
}

std::vector<Server> findServers() {
    std::vector<Server> servers;
    for (const Handoff& handoff : readHandoffs(kHandoffDirectory))
        servers.push_back(judge(handoff));
    return servers;
}

Server selectServer(const std::vector<Server>& servers, const std::optional<std::string>& wanted) {
    std::vector<const Server*> found;
    for (const Server& server : servers) {
        bool fits = wanted ? answersTo(server, *wanted) : server.state == RunState::kLive;
        if (fits) found.push_back(&server);
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
