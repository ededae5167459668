#include "collector/run_finder.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <ctime>
#include <set>

#include "os/error.h"
#include "os/text.h"
#include "servers/server.h"

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
        for (const Handoff& handoff : readHandoffs(kHandoffDirectory)) {
            examine(handoff);
            present.insert(handoff.path);
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

void RunFinder::examine(const Handoff& handoff) {
    if (!handoff.problem.empty()) {
        if (!mayBeIncomplete(handoff)) addOther(handoff, RunState::kUnreadable, handoff.problem);
        return;
    }
    SegmentStatus status = segmentStatus(handoff.shmid);
    if (!status.exists) return addOther(handoff, RunState::kStale, "its segment no longer exists");
    if (const Watched* watched = watchedRun(handoff.shmid)) {
        // While it is attached, the identifier cannot be reused.
        if (watched->run.key().pid == handoff.pid) return;
        return addOther(handoff, RunState::kStale, "its segment no longer exists");
    }
    if (std::string why = foreignSegment(handoff, status); !why.empty()) {
        return addOther(handoff, RunState::kStale, why);
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
        auto saved = store_.loadRun(watched.run.key());
        if (saved) watched.run.resume(std::move(*saved));
        types_[watched.server] = handoff.serverType;
        logLine("server {} (process {}): collecting its counts{}", watched.server, handoff.pid,
                saved ? ", from where an earlier collector stopped" : "");
    } catch (...) {
        watched_.pop_back();
        throw;
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
