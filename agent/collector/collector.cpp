#include "collector/collector.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <list>
#include <mutex>
#include <optional>

#include "base/agent_directories.h"
#include "base/error.h"
#include "base/text.h"
#include "collector/claims.h"
#include "collector/configurer.h"
#include "collector/log.h"
#include "collector/tally.h"
#include "collector/totals_store.h"
#include "collector/watched_run.h"
#include "segment/server.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;

double secondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

// A server's addresses; a run that cannot be told by them goes by its file.
std::string serverName(const Handoff& handoff) {
    if (handoff.listen.empty()) return std::string(baseName(handoff.path));
    return printable(fmt::format("{}", fmt::join(handoff.listen, ",")));
}

// A handoff file from which no counts are taken, and why.
RunState unwatched(const Handoff& handoff, WatchState state, std::string why) {
    RunState run;
    run.state = state;
    run.why = std::move(why);
    run.shmid = handoff.shmid;
    run.pid = handoff.pid;
    run.records = handoff.structures;
    return run;
}

struct Watched {
    Watched(const Handoff& handoff, const SegmentStatus& status)
        : run(handoff, status), server(serverName(handoff)) {}

    WatchedRun run;
    std::string server;
    RunState state;
    ConfigDealings dealings;
    bool ended = false;
    bool changed = false;  // since it was kept last
};

// Whole seconds would make a file look half written for too long or too short.
bool maybeHalfWritten(const Handoff& handoff) {
    constexpr std::time_t kWriting = 2;
    return std::time(nullptr) - handoff.written < kWriting;
}

std::string prepareStateDirectory(const std::string& directory) {
    makeAgentDirectories();
    makeDirectories(directory, 0755);
    return directory;
}

}  // namespace

class Collector::Impl {
  public:
    explicit Impl(const CollectorOptions& options);

    void read(const std::function<void(const CollectorState&)>& reader) const {
        std::lock_guard lock(mutex_);
        reader(state_);
    }
    void round();
    void reload() { configurer_.lookNow(); }

  private:
    void claimDirectory(const std::string& directory);
    void forgetEndedRuns();
    void discover();
    void examine(const Handoff& handoff);
    void attach(const Handoff& handoff, const SegmentStatus& status);
    bool isWatched(const Handoff& handoff, const SegmentStatus& status) const;
    void takeFrom(Watched& watched);
    void learnNames(Watched& watched, NamesTaken taken);
    void configure(Watched& watched);
    void publishRuns();
    void keep();
    void write(TotalsStore::Rows rows, std::time_t now);
    void noteKept();
    void dropEnded();

    std::string stateDirectory_;
    Claims claims_;
    std::optional<Claims> directoryClaim_;
    std::optional<TotalsStore> store_;
    Configurer configurer_;

    std::list<Watched> watched_;
    std::map<std::string, std::vector<RunState>> others_;  // by server; not taken from
    std::map<std::string, std::string> types_;
    std::map<std::string, LastingCondition> troubles_;  // by handoff file

    std::vector<RunKey> endedRuns_;  // whose rows go with the next write
    bool keepEverything_ = false;
    std::time_t keptEverything_ = 0;
    LastingCondition storeTrouble_;

    mutable std::mutex mutex_;  // of state_, whose only writer is round()
    CollectorState state_;
};

Collector::Impl::Impl(const CollectorOptions& options)
    : stateDirectory_(prepareStateDirectory(options.stateDirectory)),
      claims_(kClaimsFile),
      configurer_(options.configFile) {
    claimDirectory(stateDirectory_);
    store_.emplace(stateDirectory_);
    store_->forgetOld(std::time(nullptr));
    store_->load(state_);
    state_.health.started = std::time(nullptr);
    state_.health.interval = options.interval;
    state_.health.configFile = options.configFile;
    forgetEndedRuns();
}

void Collector::Impl::claimDirectory(const std::string& directory) {
    directoryClaim_.emplace(directory + "/claim");
    if (pid_t holder = directoryClaim_->claim(0); holder != 0) {
        fail(kExitFailed, "{} is in use by the collector with process id {}", directory, holder);
    }
}

// Runs that were taken from before, and have ended while nobody looked.
void Collector::Impl::forgetEndedRuns() {
    for (const RunKey& key : store_->runs()) {
        SegmentStatus status = segmentStatus(key.shmid);
        if (status.exists && status.created == key.created) continue;
        endedRuns_.push_back(key);
        logLine(
            "process {}'s server has ended while no collector ran; what it counted after the "
            "last taking is lost",
            key.pid);
    }
}

void Collector::Impl::round() {
    auto began = Clock::now();
    configurer_.look();
    discover();
    for (Watched& watched : watched_) {
        takeFrom(watched);
        if (watched.state.state == WatchState::kLive) configure(watched);
    }
    publishRuns();
    keep();
    dropEnded();
    std::lock_guard lock(mutex_);
    CollectorHealth& health = state_.health;
    ++health.rounds;
    health.lastRound = std::time(nullptr);
    health.roundSeconds += secondsOf(Clock::now() - began);
    health.configValid = configurer_.valid();
    health.configLoaded = configurer_.loaded();
}

void Collector::Impl::discover() {
    others_.clear();
    try {
        for (const Handoff& handoff : readHandoffs(kHandoffDirectory)) examine(handoff);
        troubles_[kHandoffDirectory].is("");
    } catch (const Failure& failure) {
        troubles_[kHandoffDirectory].is(failure.what());
    }
}

void Collector::Impl::examine(const Handoff& handoff) {
    if (!handoff.problem.empty() && maybeHalfWritten(handoff)) return;
    std::string server = serverName(handoff);
    auto leave = [&](WatchState state, const std::string& why) {
        others_[server].push_back(unwatched(handoff, state, why));
        types_[server] = handoff.serverType;
        troubles_[handoff.path].is(
            fmt::format("{} ({}): {}", handoff.path, watchStateName(state), why));
    };
    if (!handoff.problem.empty()) return leave(WatchState::kUnreadable, handoff.problem);
    SegmentStatus status = segmentStatus(handoff.shmid);
    if (!status.exists) return leave(WatchState::kStale, "its segment is gone");
    if (isWatched(handoff, status)) return;
    if (std::string why = foreignSegment(handoff, status); !why.empty()) {
        return leave(WatchState::kStale, why);
    }
    if (pid_t holder = claims_.claim(handoff.shmid); holder != 0) {
        return leave(WatchState::kHeld,
                     fmt::format("the collector with process id {} takes its counts", holder));
    }
    try {
        attach(handoff, status);
        types_[server] = handoff.serverType;
        troubles_[handoff.path].is("");
    } catch (const std::exception& error) {
        claims_.release(handoff.shmid);
        leave(WatchState::kUnreadable, error.what());
    }
}

bool Collector::Impl::isWatched(const Handoff& handoff, const SegmentStatus& status) const {
    RunKey key = {handoff.shmid, status.created, handoff.pid};
    return std::any_of(watched_.begin(), watched_.end(),
                       [&](const Watched& watched) { return watched.run.key() == key; });
}

void Collector::Impl::attach(const Handoff& handoff, const SegmentStatus& status) {
    Watched& watched = watched_.emplace_back(handoff, status);
    keepEverything_ = true;
    try {
        auto kept = store_->loadRun(watched.run.key());
        if (kept) watched.run.resume(std::move(*kept));
        logLine("server {} (process {}): taking its counts{}", watched.server, handoff.pid,
                kept ? ", from where an earlier collector stopped" : "");
    } catch (...) {
        watched_.pop_back();
        throw;
    }
}

void Collector::Impl::takeFrom(Watched& watched) {
    CountSet added;
    TakingCost cost;
    // The last look comes before the last taking: what was handed on until
    // nobody was attached any more is then part of it.
    watched.state = watched.run.look(watched.ended);
    learnNames(watched, NamesTaken::kNew);
    bool changed = watched.run.take(added, cost);
    std::time_t now = std::time(nullptr);
    {
        std::lock_guard lock(mutex_);
        ServerTally& tally = state_.servers[watched.server];
        tally.name = watched.server;
        ++tally.takings;
        tally.lastTaking = now;
        tally.busyRecords += cost.busyRecords;
        state_.health.lockSeconds += secondsOf(cost.locked);
        state_.health.longestLockSeconds =
            std::max(state_.health.longestLockSeconds, secondsOf(cost.longestLock));
        if (changed) addCounts(tally, added, watched.run.names(), now);
    }
    watched.changed = watched.changed || changed;
    learnNames(watched, NamesTaken::kAll);
}

// When another configuration stands in the segment: which names its indices have.
void Collector::Impl::learnNames(Watched& watched, NamesTaken taken) {
    std::int32_t version = watched.run.segment().version();
    if (version <= 0 || version == watched.dealings.version) return;
    ConfigCopy copy = copyConfiguration(watched.run.segment());
    if (!copy.steady) return;
    takeNames(watched.run.names(), *copy.info, taken);
    if (taken == NamesTaken::kNew) return;
    watched.dealings.version = copy.info->version;
    watched.changed = true;
    keepEverything_ = true;
    std::lock_guard lock(mutex_);
    markConfigured(state_.servers[watched.server], *copy.info);
}

void Collector::Impl::configure(Watched& watched) {
    std::int32_t known = watched.dealings.version;
    if (watched.dealings.given != 0 && known > watched.dealings.written) {
        watched.dealings.written = known;
        logLine("server {}: another agent wrote configuration {}; it stands until {} changes",
                watched.server, known, state_.health.configFile);
    }
    Configurer::Outcome outcome = configurer_.give(watched.run, watched.dealings, watched.server);
    learnNames(watched, NamesTaken::kAll);
    if (outcome == Configurer::Outcome::kNothing) return;
    std::lock_guard lock(mutex_);
    ++(outcome == Configurer::Outcome::kWritten ? state_.health.configWritten
                                                : state_.health.configFailures);
}

// Brings the runs of each server in state_ up to date.
void Collector::Impl::publishRuns() {
    std::lock_guard lock(mutex_);
    std::time_t now = std::time(nullptr);
    for (auto& [name, server] : state_.servers) server.runs.clear();
    auto add = [&](const std::string& name, const RunState& run) {
        ServerTally& server = state_.servers[name];
        server.name = name;
        if (auto type = types_.find(name); type != types_.end()) server.type = type->second;
        server.seen = now;
        server.runs.push_back(run);
    };
    for (const Watched& watched : watched_) {
        if (!watched.ended) add(watched.server, watched.state);
    }
    for (const auto& [name, runs] : others_) {
        for (const RunState& run : runs) add(name, run);
    }
}

// Writes down what this round has changed, in one transaction. The state's only
// writer is this thread, so that it may be read here without the mutex.
void Collector::Impl::keep() {
    constexpr std::time_t kEverything = 3600;  // seconds; what is still seen must not age
    std::time_t now = std::time(nullptr);
    bool all = keepEverything_ || now - keptEverything_ >= kEverything;
    bool anyRun = std::any_of(watched_.begin(), watched_.end(), [](const Watched& watched) {
        return watched.changed || watched.ended;
    });
    if (!all && !anyRun && endedRuns_.empty()) return;
    bool kept = false;
    try {
        write(all ? TotalsStore::Rows::kAll : TotalsStore::Rows::kUnkept, now);
        kept = true;
        noteKept();
        if (all) keptEverything_ = now;
        keepEverything_ = false;
        storeTrouble_.is("");
    } catch (const Failure& failure) {
        store_->rollback();
        storeTrouble_.is(
            fmt::format("{}; counting goes on, and it is tried again", failure.what()));
    }
    std::lock_guard lock(mutex_);
    state_.health.storeWorks = kept;
    state_.health.storeFailures += kept ? 0 : 1;
}

void Collector::Impl::write(TotalsStore::Rows rows, std::time_t now) {
    store_->begin();
    if (rows == TotalsStore::Rows::kAll) store_->forgetOld(now);
    for (const auto& [name, server] : state_.servers) store_->keepServer(server, rows, now);
    for (const Watched& watched : watched_) {
        if (watched.ended) {
            store_->forgetRun(watched.run.key());
        } else if (watched.changed) {
            store_->keepRun(watched.run.key(), watched.server, watched.run.taken());
        }
    }
    for (const RunKey& key : endedRuns_) store_->forgetRun(key);
    store_->commit();
}

void Collector::Impl::noteKept() {
    for (Watched& watched : watched_) watched.changed = false;
    endedRuns_.clear();
    std::lock_guard lock(mutex_);
    for (auto& [name, server] : state_.servers) {
        server.unkept = false;
        for (SiteTally& site : server.sites) {
            site.unkept = false;
            for (CategoryTally& category : site.categories) category.unkept = false;
        }
    }
    std::time_t oldest = std::time(nullptr) - kKeptFor;
    std::erase_if(state_.servers, [&](const auto& entry) { return entry.second.seen < oldest; });
}

// Lets go of runs that are over, once their last counts are kept.
void Collector::Impl::dropEnded() {
    for (auto watched = watched_.begin(); watched != watched_.end();) {
        if (!watched->ended || watched->changed) {
            ++watched;
            continue;
        }
        logLine("server {} (process {}): it has ended; its counts are kept", watched->server,
                watched->run.key().pid);
        claims_.release(watched->run.key().shmid);
        watched = watched_.erase(watched);
    }
}

Collector::Collector(const CollectorOptions& options) : impl_(std::make_unique<Impl>(options)) {}

Collector::~Collector() = default;

void Collector::read(const std::function<void(const CollectorState&)>& reader) const {
    impl_->read(reader);
}

void Collector::round() {
    impl_->round();
}

void Collector::reload() {
    impl_->reload();
}

}  // namespace tolvane::agent
