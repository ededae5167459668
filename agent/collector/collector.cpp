#include "collector/collector.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <list>
#include <mutex>
#include <optional>

#include "collector/log.h"
#include "collector/run_finder.h"
#include "collector/tally.h"
#include "os/agent_directories.h"
#include "os/error.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;

double secondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
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
    void takeFrom(Watched& watched);
    void learnNames(Watched& watched, NamesTaken taken);
    void configure(Watched& watched);
    void publishRuns();
    bool keep();
    void forgetOld(std::time_t now);
    void write(TotalsStore::Rows rows);
    void noteKept();
    void dropEnded();

    const Clock::time_point began_ = Clock::now();
    std::string stateDirectory_;
    std::optional<Claims> directoryClaim_;
    std::optional<TotalsStore> store_;
    std::optional<RunFinder> finder_;
    Configurer configurer_;

    std::vector<RunKey> endedRuns_;  // whose rows go with the next write
    bool keepEverything_ = false;
    std::time_t keptEverything_ = 0;
    LastingCondition storeTrouble_;

    mutable std::mutex mutex_;  // of state_, whose only writer is round()
    CollectorState state_;
};

Collector::Impl::Impl(const CollectorOptions& options)
    : stateDirectory_(prepareStateDirectory(options.stateDirectory)),
      configurer_(options.configFile) {
    claimDirectory(stateDirectory_);
    store_.emplace(stateDirectory_);
    store_->load(state_);
    finder_.emplace(*store_);
    state_.health.started = std::time(nullptr);
    state_.health.interval = options.interval;
    state_.health.configFile = options.configFile;
    forgetEndedRuns();
}

void Collector::Impl::claimDirectory(const std::string& directory) {
    directoryClaim_.emplace(directory + "/claim");
    if (pid_t holder = directoryClaim_->claim(0); holder != 0) {
        fail(ErrorKind::kFailed, "{} is in use by the collector with process id {}", directory,
             holder);
    }
}

// Runs that were taken from before, and have ended while nobody looked.
void Collector::Impl::forgetEndedRuns() {
    for (const RunKey& key : store_->runs()) {
        SegmentStatus status = segmentStatus(key.shmid);
        if (status.exists && status.created == key.created) continue;
        endedRuns_.push_back(key);
        logLine(
            "process {}'s server has ended since its counts were kept last; what it counted after "
            "that is lost",
            key.pid);
    }
}

void Collector::Impl::round() {
    auto began = Clock::now();
    configurer_.look();
    finder_->look();
    for (Watched& watched : finder_->watched()) {
        takeFrom(watched);
        if (watched.state.state == WatchState::kLive) configure(watched);
    }
    publishRuns();
    if (keep()) dropEnded();
    std::lock_guard lock(mutex_);
    CollectorHealth& health = state_.health;
    ++health.rounds;
    health.lastRound = std::time(nullptr);
    health.roundSeconds += secondsOf(Clock::now() - began);
    health.configValid = configurer_.valid();
    health.configLoaded = configurer_.loaded();
}

void Collector::Impl::takeFrom(Watched& watched) {
    CountSet added;
    TakingCost cost;
    // The last look comes before the last taking: what was handed on until
    // nobody was attached any more is then part of it.
    watched.state = watched.run.look(watched.ended);
    learnNames(watched, NamesTaken::kNew);
    InHistory inHistory = watched.run.tookBefore() ? InHistory::kYes : InHistory::kNo;
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
        if (changed) addCounts(tally, added, watched.run.names(), now, inHistory);
    }
    watched.unkept = watched.unkept || changed;
    learnNames(watched, NamesTaken::kAll);
}

// When another configuration stands in the segment: which names its indices have.
void Collector::Impl::learnNames(Watched& watched, NamesTaken taken) {
    std::int32_t version = watched.run.segment().version();
    if (version == watched.dealings.version) return;
    // At its end the segment still has the configuration that the server worked
    // with; before its first one, and while one is written, it has none.
    if (version <= 0 && version != kVersionRemoved) return;
    ConfigCopy copy = copyConfiguration(watched.run.segment());
    if (!copy.steady) return;
    takeNames(watched.run.names(), *copy.info, taken);
    if (taken == NamesTaken::kNew) return;
    bool known = watched.dealings.version != 0;
    watched.dealings.version = copy.info->version;
    watched.unkept = true;
    keepEverything_ = true;
    std::lock_guard lock(mutex_);
    // It may never have had one, and the next run another.
    bool none = copy.info->numSites == 0;
    if (version == kVersionRemoved && (known || none)) return;
    markConfigured(state_.servers[watched.server], *copy.info, std::time(nullptr));
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
    // Files from which nothing was ever taken leave nothing behind.
    std::erase_if(state_.servers, [](const auto& entry) {
        return entry.second.lastTaking == 0 && entry.second.total.connections == 0 &&
               entry.second.sites.empty();
    });
    auto add = [&](const std::string& name, const RunState& run) {
        ServerTally& server = state_.servers[name];
        server.name = name;
        server.type = finder_->typeOf(name);
        if (server.seen == 0) keepEverything_ = true;
        server.seen = now;
        server.runs.push_back(run);
    };
    for (const Watched& watched : finder_->watched()) {
        if (!watched.ended) add(watched.server, watched.state);
    }
    for (const auto& [name, runs] : finder_->others()) {
        for (const RunState& run : runs) add(name, run);
    }
}

// Writes down what this round has changed, in one transaction. The state's only
// writer is this thread, so that it may be read here without the mutex. Returns
// whether nothing is left to be written down.
bool Collector::Impl::keep() {
    constexpr std::time_t kEverything = 3600;  // seconds; what is still seen must not age
    std::time_t now = std::time(nullptr);
    bool all = keepEverything_ || now - keptEverything_ >= kEverything;
    bool anyRun =
        std::any_of(finder_->watched().begin(), finder_->watched().end(),
                    [](const Watched& watched) { return watched.unkept || watched.ended; });
    if (!all && !anyRun && endedRuns_.empty()) return true;
    bool kept = false;
    try {
        if (all) forgetOld(now);
        write(all ? TotalsStore::Rows::kAll : TotalsStore::Rows::kUnkept);
        kept = true;
        noteKept();
        if (all) keptEverything_ = now;
        keepEverything_ = false;
        storeTrouble_.is("");
    } catch (const Error& error) {
        store_->rollback();
        storeTrouble_.is(fmt::format("{}; counting goes on, and it is tried again", error.what()));
    }
    std::lock_guard lock(mutex_);
    state_.health.storeWorks = kept;
    state_.health.storeFailures += kept ? 0 : 1;
    return kept;
}

// What was not seen for long. The clock is not asked in the first hour, in which
// a machine may still find out what time it is.
void Collector::Impl::forgetOld(std::time_t now) {
    if (Clock::now() - began_ < std::chrono::hours(1)) return;
    std::time_t oldest = now - kKeptFor;
    std::lock_guard lock(mutex_);
    std::erase_if(state_.servers, [&](const auto& entry) { return entry.second.seen < oldest; });
    for (auto& [name, server] : state_.servers) forgetRows(server, oldest);
}

void Collector::Impl::write(TotalsStore::Rows rows) {
    store_->begin();
    if (rows == TotalsStore::Rows::kAll) store_->forgetServers();
    for (const auto& [name, server] : state_.servers) store_->keepServer(server, rows);
    for (const Watched& watched : finder_->watched()) {
        if (watched.ended) {
            store_->forgetRun(watched.run.key());
        } else if (watched.unkept) {
            store_->keepRun(watched.run.key(), watched.server, watched.run.taken());
        }
    }
    for (const RunKey& key : endedRuns_) store_->forgetRun(key);
    store_->commit();
}

void Collector::Impl::noteKept() {
    for (Watched& watched : finder_->watched()) watched.unkept = false;
    endedRuns_.clear();
    std::lock_guard lock(mutex_);
    for (auto& [name, server] : state_.servers) {
        server.unkept = false;
        for (SiteTally& site : server.sites) {
            site.unkept = false;
            for (CategoryTally& category : site.categories) category.unkept = false;
        }
    }
}

// Lets go of runs that are over, once their last counts are kept.
void Collector::Impl::dropEnded() {
    std::list<Watched>& all = finder_->watched();
    for (auto watched = all.begin(); watched != all.end();) {
        if (!watched->ended) {
            ++watched;
            continue;
        }
        logLine("server {} (process {}): it has ended; its counts are kept", watched->server,
                watched->run.key().pid);
        finder_->release(*watched);
        watched = all.erase(watched);
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
