#include "collector/run_finder.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <set>

#include "os/error.h"
#include "os/process.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

// A server's addresses, or the name of the handoff file when it has none.
std::string serverName(const Handoff& handoff) {
    if (handoff.listen.empty()) return std::string(baseName(handoff.path));
    return fmt::format("{}", fmt::join(handoff.listen, ","));
}

bool mayBeIncomplete(const Handoff& handoff) {
    constexpr std::time_t kWriting = 2;  // seconds
    std::time_t age = std::time(nullptr) - handoff.written;
    return age >= 0 && age < kWriting;
}

}  // namespace

Watched::Watched(const Handoff& handoff, const SegmentStatus& segment)
    : run(handoff, segment), server(serverName(handoff)) {}

RunFinder::RunFinder(TotalsStore& store) : store_(store), locks_(kOwnershipFile) {}

void RunFinder::update() {
    others_.clear();
    try {
        std::set<std::string> present = {kHandoffDirectory};
        for (const FoundRun& run : findRuns()) {
            examine(run);
            present.insert(run.handoff.path);
        }
        std::erase_if(troubles_,
                      [&](const auto& trouble) { return !present.contains(trouble.first); });
        troubles_[kHandoffDirectory].set("");
    } catch (const Error& error) {
        troubles_[kHandoffDirectory].set(error.what());
    }
}

std::string RunFinder::typeOf(const std::string& server) const {
    auto found = types_.find(server);
    return found == types_.end() ? "" : found->second;
}

void RunFinder::examine(const FoundRun& run) {
    const Handoff& handoff = run.handoff;
    if (!run.damage.empty() && mayBeIncomplete(handoff)) return;
    if (!run.found) {
        removeLeftFile(run);
        return addOther(handoff, run.running ? RunState::kUnreadable : RunState::kStale,
                        run.reason);
    }
    SegmentStatus status = segmentStatus(handoff.shmid);
    if (const Watched* watched = watchedRun(handoff.shmid)) {
        // While it is attached, the identifier cannot be reused.
        if (watched->run.key().pid == handoff.pid) return;
        return addOther(handoff, RunState::kStale, "its segment no longer exists");
    }
    if (pid_t holder = locks_.acquire(handoff.shmid); holder != 0) {
        return addOther(
            handoff, RunState::kHeld,
            fmt::format("the collector with process id {} collects its counts", holder));
    }
    try {
        attach(handoff, status);
        troubles_[handoff.path].set("");
    } catch (const std::exception& error) {
        locks_.release(handoff.shmid);
        addOther(handoff, RunState::kUnreadable, error.what());
    }
}

void RunFinder::attach(const Handoff& handoff, const SegmentStatus& status) {
    Watched& watched = watched_.emplace_back(handoff, status);
    try {
        const char* from = resume(watched);
        types_[watched.server] = handoff.serverType;
        logLine("server {} (process {}): collecting its counts{}", watched.server, handoff.pid,
                from);
    } catch (...) {
        watched_.pop_back();
        throw;
    }
}

// Returns where the collection starts, for the log.
const char* RunFinder::resume(Watched& watched) {
    try {
        auto saved = store_.loadRun(watched.run.key());
        if (!saved) return "";
        watched.run.resume(std::move(*saved));
        return ", from where an earlier collector stopped";
    } catch (const DamagedProgress& error) {
        // A start from 0 would add counts to the totals a second time.
        watched.run.startFromPresentCounts();
        logLine("{}; the counts since the last collection are lost", error.what());
        return ", from its present counts";
    }
}

// A server that detaches leaves its handoff file behind at a normal stop, because the
// process that wrote it has ended.
void RunFinder::removeLeftFile(const FoundRun& run) {
    constexpr std::time_t kOldEnough = 10;  // seconds
    const Handoff& handoff = run.handoff;
    bool young = std::time(nullptr) - handoff.written < kOldEnough;
    if (run.running || young || !handoff.problem.empty()) return;
    if (segmentStatus(handoff.shmid).exists || processExists(handoff.pid)) return;
    if (::unlink(handoff.path.c_str()) == 0) {
        logLine("{}: removed, its server has ended", handoff.path);
    }
}

void RunFinder::addOther(const Handoff& handoff, RunState state, const std::string& reason) {
    RunStatus run;
    run.state = state;
    run.reason = reason;
    run.shmid = handoff.shmid;
    run.pid = handoff.pid;
    run.records = handoff.structures;
    std::string server = serverName(handoff);
    others_[server].push_back(run);
    types_[server] = handoff.serverType;
    troubles_[handoff.path].set(
        fmt::format("{} ({}): {}", handoff.path, runStateName(state), reason));
}

const Watched* RunFinder::watchedRun(std::int32_t shmid) const {
    auto found = std::find_if(watched_.begin(), watched_.end(), [&](const Watched& watched) {
        return watched.run.key().shmid == shmid;
    });
    return found == watched_.end() ? nullptr : &*found;
}

}  // namespace tolvane::agent
