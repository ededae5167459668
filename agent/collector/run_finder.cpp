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

// A server's addresses; a run that cannot be told by them goes by its file.
std::string serverName(const Handoff& handoff) {
    if (handoff.listen.empty()) return printable(baseName(handoff.path));
    return printable(fmt::format("{}", fmt::join(handoff.listen, ",")));
}

bool maybeHalfWritten(const Handoff& handoff) {
    constexpr std::time_t kWriting = 2;  // seconds
    std::time_t age = std::time(nullptr) - handoff.written;
    return age >= 0 && age < kWriting;
}

}  // namespace

Watched::Watched(const Handoff& handoff, const SegmentStatus& status)
    : run(handoff, status), server(serverName(handoff)) {}

RunFinder::RunFinder(TotalsStore& store) : store_(store), claims_(kClaimsFile) {}

void RunFinder::look() {
    others_.clear();
    try {
        std::set<std::string> present = {kHandoffDirectory};
        for (const Handoff& handoff : readHandoffs(kHandoffDirectory)) {
            examine(handoff);
            present.insert(handoff.path);
        }
        std::erase_if(troubles_,
                      [&](const auto& trouble) { return !present.contains(trouble.first); });
        troubles_[kHandoffDirectory].is("");
    } catch (const Error& error) {
        troubles_[kHandoffDirectory].is(error.what());
    }
}

std::string RunFinder::typeOf(const std::string& server) const {
    auto found = types_.find(server);
    return found == types_.end() ? "" : found->second;
}

void RunFinder::examine(const Handoff& handoff) {
    if (!handoff.problem.empty()) {
        if (!maybeHalfWritten(handoff)) leave(handoff, WatchState::kUnreadable, handoff.problem);
        return;
    }
    SegmentStatus status = segmentStatus(handoff.shmid);
    if (!status.exists) return leave(handoff, WatchState::kStale, "its segment is gone");
    if (const Watched* watched = watchedRun(handoff.shmid)) {
        // While we are attached, the identifier is that segment's.
        if (watched->run.key().pid == handoff.pid) return;
        return leave(handoff, WatchState::kStale, "its segment is gone");
    }
    if (std::string why = foreignSegment(handoff, status); !why.empty()) {
        return leave(handoff, WatchState::kStale, why);
    }
    if (pid_t holder = claims_.claim(handoff.shmid); holder != 0) {
        return leave(handoff, WatchState::kHeld,
                     fmt::format("the collector with process id {} takes its counts", holder));
    }
    try {
        attach(handoff, status);
        troubles_[handoff.path].is("");
    } catch (const std::exception& error) {
        claims_.release(handoff.shmid);
        leave(handoff, WatchState::kUnreadable, error.what());
    }
}

void RunFinder::attach(const Handoff& handoff, const SegmentStatus& status) {
    Watched& watched = watched_.emplace_back(handoff, status);
    try {
        auto kept = store_.loadRun(watched.run.key());
        if (kept) watched.run.resume(std::move(*kept));
        types_[watched.server] = handoff.serverType;
        logLine("server {} (process {}): taking its counts{}", watched.server, handoff.pid,
                kept ? ", from where an earlier collector stopped" : "");
    } catch (...) {
        watched_.pop_back();
        throw;
    }
}

void RunFinder::leave(const Handoff& handoff, WatchState state, const std::string& why) {
    RunState run;
    run.state = state;
    run.why = why;
    run.shmid = handoff.shmid;
    run.pid = handoff.pid;
    run.records = handoff.structures;
    std::string server = serverName(handoff);
    others_[server].push_back(run);
    types_[server] = handoff.serverType;
    troubles_[handoff.path].is(
        fmt::format("{} ({}): {}", handoff.path, watchStateName(state), why));
}

const Watched* RunFinder::watchedRun(std::int32_t shmid) const {
    auto found = std::find_if(watched_.begin(), watched_.end(), [&](const Watched& watched) {
        return watched.run.key().shmid == shmid;
    });
    return found == watched_.end() ? nullptr : &*found;
}

}  // namespace tolvane::agent
