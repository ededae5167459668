#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "cli/commands.h"
#include "cli/exit_code.h"
#include "cli/terminal.h"
#include "os/error.h"
#include "os/process.h"
#include "os/text.h"
#include "segment/record_lock.h"
#include "servers/removal_lock.h"
#include "servers/server.h"

namespace tolvane::agent {

namespace {

struct RunningServer {
    std::string name;
    SegmentStatus segment;
};

std::vector<RunningServer> runningServers(const std::vector<Server>& servers) {
    std::vector<RunningServer> running;
    for (const Server& server : servers) {
        if (server.state == RunState::kStale || !server.ownsSegment) continue;
        running.push_back({nameOf(server), segmentStatus(server.handoff.shmid)});
    }
    return running;
}

// A running server that may have created the semaphore. The identifiers in its
// segment prove nothing, because any user can write to it.
const RunningServer* possibleOwner(std::int32_t id, const std::vector<RunningServer>& running) {
    auto found = std::find_if(running.begin(), running.end(), [id](const RunningServer& server) {
        return isSemaphoreOf(id, server.segment);
    });
    return found == running.end() ? nullptr : &*found;
}

struct Leftovers {
    std::string heading;
    std::string doubts;  // lines about kept objects
    std::set<std::int32_t> semaphores;
    std::int32_t shmid = -1;
    std::string handoff;
};

Leftovers leftoversOf(const Server& server, const std::vector<RunningServer>& running) {
    Leftovers left;
    left.heading = fmt::format("Server {}: {}\n", nameOf(server), server.reason);
    // A server may be writing a file that appears damaged.
    bool mayBeWritten = !server.handoff.problem.empty() && processExists(server.handoff.pid);
    if (!mayBeWritten) left.handoff = server.handoff.path;
    if (!server.ownsSegment) return left;
    left.shmid = server.handoff.shmid;
    SegmentStatus status = segmentStatus(left.shmid);
    Segment segment(left.shmid, server.handoff.structures, Segment::Access::kRead);
    for (std::int32_t i = 0; i < segment.structures(); ++i) {
        std::int32_t id = segment.semaphoreOf(i);
        if (!isSemaphoreOf(id, status)) continue;
        const RunningServer* owner = possibleOwner(id, running);
        if (owner == nullptr) {
            left.semaphores.insert(id);
            continue;
        }
        left.doubts += fmt::format(
            "  semaphore {} is kept: server {} was started at the same time and may own it; if "
            "not, 'ipcrm -s {}' removes it\n",
            id, owner->name, id);
    }
    return left;
}

class Remover {
  public:
    explicit Remover(bool dryRun) : dryRun_(dryRun) {}

    template <typename Action>
    void remove(const std::string& what, Action&& action) {
        if (!dryRun_ && action() != 0 && errno != EINVAL && errno != EIDRM && errno != ENOENT) {
            writeOut(fmt::format("  {}: {}\n", what, std::strerror(errno)));
            refused_ = true;
            return;
        }
        writeOut(fmt::format("  {} {}\n", what, dryRun_ ? "would be removed" : "removed"));
    }
    bool refused() const { return refused_; }

  private:
    bool dryRun_;
    bool refused_ = false;
};

void removeLeftovers(const Leftovers& left, Remover& remover) {
    writeOut(left.heading + left.doubts);
    for (std::int32_t id : left.semaphores) {
        remover.remove(fmt::format("semaphore {}", id), [id] { return ::semctl(id, 0, IPC_RMID); });
    }
    if (left.shmid >= 0) {
        remover.remove(fmt::format("segment {}", left.shmid),
                       [&] { return ::shmctl(left.shmid, IPC_RMID, nullptr); });
    }
    if (!left.handoff.empty()) {
        remover.remove(left.handoff, [&] { return ::unlink(left.handoff.c_str()); });
    }
}

}  // namespace

int cleanCommand(const CleanOptions& options) {
    Remover remover(options.dryRun);
    if (auto age = abandonedLockAge()) {
        writeOut(fmt::format("Lock file of a process that has ended, held for {} s:\n", *age));
        remover.remove(kLockFile, [] { return ::unlink(kLockFile); });
    }
    auto stale = [](const Server& server) { return server.state == RunState::kStale; };
    auto servers = findServers();
    if (std::none_of(servers.begin(), servers.end(), stale)) {
        writeOut("No stale server.\n");
        return remover.refused() ? kExitFailed : kExitOk;
    }
    std::optional<RemovalLock> lock;
    if (!options.dryRun) {
        Progress progress;
        lock.emplace([&](std::string_view text) { progress.show(text); });
        // The states may have changed during the wait for the lock.
        servers = findServers();
    }
    std::vector<RunningServer> running = runningServers(servers);
    std::vector<Leftovers> leftovers;
    for (const Server& server : servers) {
        if (stale(server)) leftovers.push_back(leftoversOf(server, running));
    }
    for (const Leftovers& left : leftovers) removeLeftovers(left, remover);
    return remover.refused() ? kExitFailed : kExitOk;
}

}  // namespace tolvane::agent
