#include "collector/collector.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <list>
#include <mutex>
#include <optional>
#include <utility>

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
    void collectEarly();
    void reload() { configurer_.reload(); }

  private:
    void lockDirectory(const std::string& directory);
    void findLostRuns();
    void collectFrom(Watched& watched);
    void updateNames(Watched& watched, NameUpdate update);
    void configure(Watched& watched);
    void publishRuns();
    bool save();
    void dropOld(std::time_t now);
    void write(TotalsStore::Rows rows);
    void markSaved();
    void dropEnded();

    const Clock::time_point began_ = Clock::now();
    std::string stateDirectory_;
    std::optional<OwnershipLock> directoryLock_;
    std::optional<TotalsStore> store_;
    std::optional<RunFinder> finder_;
    Configurer configurer_;

    std::vector<RunKey> lostRuns_;  // the next write deletes their rows
    bool saveAll_ = false;
    std::time_t savedAll_ = 0;
    LastingCondition storeTrouble_;

    mutable std::mutex mutex_;  // of state_, whose only writer is round()
    CollectorState state_;
};

Collector::Impl::Impl(const CollectorOptions& options)
    : stateDirectory_(prepareStateDirectory(options.stateDirectory)),
      configurer_(options.configFile) {
    lockDirectory(stateDirectory_);
    store_.emplace(stateDirectory_);
    store_->load(state_);
    finder_.emplace(*store_);
    state_.health.started = std::time(nullptr);
    state_.health.interval = options.interval;
    state_.health.configFile = options.configFile;
    findLostRuns();
}

void Collector::Impl::lockDirectory(const std::string& directory) {
    directoryLock_.emplace(directory + "/lock");
    if (pid_t holder = directoryLock_->acquire(0); holder != 0) {
        fail(ErrorKind::kFailed, "{} is in use by the collector with process id {}", directory,
             holder);
    }
}

// Runs of an earlier collector that have ended since.
void Collector::Impl::findLostRuns() {
    for (const RunKey& key : store_->runs()) {
        SegmentStatus status = segmentStatus(key.shmid);
        if (status.exists && status.created == key.created) continue;
        lostRuns_.push_back(key);
        logLine(
            "the server of process {} has ended since its counts were last saved; its later "
            "counts are lost",
            key.pid);
    }
}

void Collector::Impl::round() {
    auto began = Clock::now();
    configurer_.poll();
    finder_->update();
    for (Watched& watched : finder_->watched()) {
        collectFrom(watched);
        if (watched.status.state == RunState::kLive) configure(watched);
    }
    publishRuns();
    if (save()) dropEnded();
    std::lock_guard lock(mutex_);
    CollectorHealth& health = state_.health;
    ++health.rounds;
    health.lastRound = std::time(nullptr);
    health.roundSeconds += secondsOf(Clock::now() - began);
    health.configValid = configurer_.valid();
    health.configLoaded = configurer_.loaded();
}

void Collector::Impl::collectFrom(Watched& watched) {
    CountSet added = std::exchange(watched.early, {});
    CollectionCost cost = std::exchange(watched.earlyCost, {});
    // The status is read before the collection: if no process is attached, the
    // collection contains all publications.
    watched.status = watched.run.status(watched.ended);
    updateNames(watched, NameUpdate::kNewOnly);
    InHistory inHistory = watched.run.collectedBefore() ? InHistory::kYes : InHistory::kNo;
    bool changed = watched.run.collect(added, cost) || watched.hasEarly;
    watched.hasEarly = false;
    std::time_t now = std::time(nullptr);
    {
        std::lock_guard lock(mutex_);
        ServerTally& tally = state_.servers[watched.server];
        tally.name = watched.server;
        ++tally.collections;
        tally.lastCollection = now;
        tally.busyRecords += cost.busyRecords;
        state_.health.lockSeconds += secondsOf(cost.locked);
        state_.health.longestLockSeconds =
            std::max(state_.health.longestLockSeconds, secondsOf(cost.longestLock));
        if (changed) addCounts(tally, added, watched.run.names(), now, inHistory);
    }
    watched.dirty = watched.dirty || changed;
    updateNames(watched, NameUpdate::kAll);
}

void Collector::Impl::collectEarly() {
    for (Watched& watched : finder_->watched()) {
        watched.hasEarly |= watched.run.collect(watched.early, watched.earlyCost);
    }
}

// Updates the names of the indices when the segment has another configuration.
void Collector::Impl::updateNames(Watched& watched, NameUpdate update) {
    std::int32_t version = watched.run.segment().version();
    if (version == watched.sync.version) return;
    // At its end the segment still has the last configuration. Before the first
    // configuration, and while a configuration is written, it has none.
    if (version <= 0 && version != kVersionRemoved) return;
    ConfigCopy copy = copyConfiguration(watched.run.segment());
    if (!copy.steady) return;
    agent::updateNames(watched.run.names(), *copy.info, update);
    if (update == NameUpdate::kNewOnly) return;
    bool known = watched.sync.version != 0;
    watched.sync.version = copy.info->version;
    watched.dirty = true;
    saveAll_ = true;
    std::lock_guard lock(mutex_);
    // It may never have had a configuration, and the next run may have another.
    bool none = copy.info->numSites == 0;
    if (version == kVersionRemoved && (known || none)) return;
    markConfigured(state_.servers[watched.server], *copy.info, std::time(nullptr));
}

void Collector::Impl::configure(Watched& watched) {
    std::int32_t known = watched.sync.version;
    if (watched.sync.revision != 0 && known > watched.sync.noted) {
        watched.sync.noted = known;
        logLine("server {}: another agent wrote configuration {}; it stays until {} changes",
                watched.server, known, state_.health.configFile);
    }
    Configurer::Outcome outcome = configurer_.apply(watched.run, watched.sync, watched.server);
    updateNames(watched, NameUpdate::kAll);
    if (outcome == Configurer::Outcome::kNothing) return;
    std::lock_guard lock(mutex_);
    ++(outcome == Configurer::Outcome::kWritten ? state_.health.configWritten
                                                : state_.health.configFailures);
}

// Updates the runs of each server in state_.
void Collector::Impl::publishRuns() {
    std::lock_guard lock(mutex_);
    std::time_t now = std::time(nullptr);
    for (auto& [name, server] : state_.servers) server.runs.clear();
    // A handoff file whose run was never collected leaves no server.
    std::erase_if(state_.servers, [](const auto& entry) {
        return entry.second.lastCollection == 0 && entry.second.total.empty() &&
               entry.second.sites.empty();
    });
    auto add = [&](const std::string& name, const RunStatus& run) {
        ServerTally& server = state_.servers[name];
        server.name = name;
        server.type = finder_->typeOf(name);
        if (server.seen == 0) saveAll_ = true;
        server.seen = now;
        server.runs.push_back(run);
    };
    for (const Watched& watched : finder_->watched()) {
        if (!watched.ended) add(watched.server, watched.status);
    }
    for (const auto& [name, runs] : finder_->others()) {
        for (const RunStatus& run : runs) add(name, run);
    }
}

// Persists the changes of this round in one transaction. Only this thread writes
// the state, so it can read it without the mutex. Returns whether all is persisted.
bool Collector::Impl::save() {
    constexpr std::time_t kSaveAll = 3600;  // seconds; refreshes the times when rows were seen
    std::time_t now = std::time(nullptr);
    bool all = saveAll_ || now - savedAll_ >= kSaveAll;
    bool anyRun =
        std::any_of(finder_->watched().begin(), finder_->watched().end(),
                    [](const Watched& watched) { return watched.dirty || watched.ended; });
    if (!all && !anyRun && lostRuns_.empty()) return true;
    bool saved = false;
    try {
        if (all) dropOld(now);
        write(all ? TotalsStore::Rows::kAll : TotalsStore::Rows::kDirty);
        saved = true;
        markSaved();
        if (all) savedAll_ = now;
        saveAll_ = false;
        storeTrouble_.set("");
    } catch (const Error& error) {
        store_->rollback();
        storeTrouble_.set(fmt::format(
            "the totals cannot be saved: {}; counting continues, and the next round tries again",
            error.what()));
    }
    std::lock_guard lock(mutex_);
    state_.health.storeWorks = saved;
    state_.health.storeFailures += saved ? 0 : 1;
    return saved;
}

// Drops entries that were not seen for kRetention. Not in the first hour, because
// the clock of a machine that has just started may be wrong.
void Collector::Impl::dropOld(std::time_t now) {
    if (Clock::now() - began_ < std::chrono::hours(1)) return;
    std::time_t oldest = now - kRetention;
    std::lock_guard lock(mutex_);
    std::erase_if(state_.servers, [&](const auto& entry) { return entry.second.seen < oldest; });
    for (auto& [name, server] : state_.servers) dropOldRows(server, oldest);
}

void Collector::Impl::write(TotalsStore::Rows rows) {
    store_->begin();
    if (rows == TotalsStore::Rows::kAll) store_->deleteServers();
    for (const auto& [name, server] : state_.servers) store_->saveServer(server, rows);
    for (const Watched& watched : finder_->watched()) {
        if (watched.ended) {
            store_->deleteRun(watched.run.key());
        } else if (watched.dirty) {
            store_->saveRun(watched.run.key(), watched.server, watched.run.progress());
        }
    }
    for (const RunKey& key : lostRuns_) store_->deleteRun(key);
    store_->commit();
}

void Collector::Impl::markSaved() {
    for (Watched& watched : finder_->watched()) watched.dirty = false;
    lostRuns_.clear();
    std::lock_guard lock(mutex_);
    for (auto& [name, server] : state_.servers) {
        server.dirty = false;
        for (SiteTally& site : server.sites) {
            site.dirty = false;
            for (CategoryTally& category : site.categories) category.dirty = false;
        }
    }
}

// Detaches runs that have ended, once their last counts are saved.
void Collector::Impl::dropEnded() {
    std::list<Watched>& all = finder_->watched();
    for (auto watched = all.begin(); watched != all.end();) {
        if (!watched->ended) {
            ++watched;
            continue;
        }
        logLine("server {} (process {}): it has ended; its counts are saved", watched->server,
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

void Collector::collectEarly() {
    impl_->collectEarly();
}

void Collector::reload() {
    impl_->reload();
}

}  // namespace tolvane::agent
