#include "collector/configurer.h"

#include <sys/stat.h>

#include <cstring>
#include <ctime>

#include "configuration/config_block.h"
#include "configuration/config_load.h"
#include "configuration/config_writer.h"
#include "os/error.h"
#include "servers/uptake.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

// Compares all fields that an agent writes, except the version.
bool sameConfiguration(const ConfigInfo& a, const ConfigInfo& b) {
    constexpr std::size_t kFrom = offsetof(ConfigInfo, numCategories);
    constexpr std::size_t kTo = offsetof(ConfigInfo, parentPid);
    return a.numSites == b.numSites && a.interval == b.interval &&
           std::memcmp(reinterpret_cast<const char*>(&a) + kFrom,
                       reinterpret_cast<const char*>(&b) + kFrom, kTo - kFrom) == 0;
}

}  // namespace

Configurer::Configurer(std::string path) : path_(std::move(path)) {
    reload();
}

Configurer::FileStamp Configurer::stamp() const {
    struct stat status {};
    if (::stat(path_.c_str(), &status) != 0) return {};
    return {status.st_mtim.tv_sec * 1000000000 + status.st_mtim.tv_nsec, status.st_ino,
            status.st_size};
}

void Configurer::poll() {
    if (path_.empty()) return;
    constexpr auto kSettled = 1s;
    FileStamp current = stamp();
    auto now = std::chrono::steady_clock::now();
    if (current != seen_) seenSince_ = now;
    seen_ = current;
    if (current != read_ && now - seenSince_ >= kSettled) load();
}

void Configurer::reload() {
    if (path_.empty()) return;
    seen_ = stamp();
    load();
}

void Configurer::load() {
    read_ = seen_;
    LoadedConfig config = loadConfig(path_, WithoutSites::kRefused, PipeWriter::kIgnored);
    valid_ = config.complaints.empty();
    if (!valid_) {
        for (const std::string& complaint : config.complaints) logLine("{}", complaint);
        logLine("{} is not valid; servers {}", path_,
                block_ ? "keep the previous configuration" : "are not configured");
        return;
    }
    auto block = buildConfigBlock(config.model);
    loaded_ = std::time(nullptr);
    if (block_ && sameConfiguration(*block, *block_)) return;
    block_ = std::move(block);
    ++revision_;
    logLine("{}: {}", path_, summaryOf(config.model));
}

// True while another agent that has begun a configuration has time to finish it.
bool Configurer::othersAreWriting(WatchedRun& run, ConfigSync& sync) const {
    constexpr auto kPatience = 5s;
    std::int32_t version = run.segment().version();
    auto now = std::chrono::steady_clock::now();
    if (!isBeingWritten(version) || isRewriting(version)) {
        sync.othersMarkSince = {};
        return false;
    }
    if (sync.othersMarkSince == std::chrono::steady_clock::time_point{}) {
        sync.othersMarkSince = now;
    }
    if (now - sync.othersMarkSince < kPatience) return true;
    logLine("{}: another agent began a configuration (version {}) and did not finish it",
            run.handoff().path, version);
    return false;
}

Configurer::Outcome Configurer::apply(WatchedRun& run, ConfigSync& sync,
                                      const std::string& server) {
    if (!block_ || sync.revision == revision_ || othersAreWriting(run, sync)) {
        return Outcome::kNothing;
    }
    try {
        auto placed = placeConfiguration(*block_, run.names());
        ConfigLock lock(run.handoff().path, 0s);
        std::int32_t version = run.segment().version();
        bool equal = version > 0 && sameConfiguration(*run.segment().config(), *placed);
        if (!equal) {
            Uptake uptake = uptakeOf(modeOf(run.handoff(), run.segment().parentPid()),
                                     *run.segment().config(), placed->interval);
            version = writeConfiguration(run.segment(), *placed, 0s).version;
            keepInForceTime(run.handoff().path, uptake);
        }
        sync.revision = revision_;
        sync.noted = version;
        sync.trouble.set("");
        if (equal) return Outcome::kNothing;
        logLine("server {}: configuration {} written", server, version);
        return Outcome::kWritten;
    } catch (const Error& error) {
        sync.trouble.set(fmt::format("server {}: not configured: {}; the next round tries again",
                                     server, error.what()));
        return Outcome::kFailed;
    }
}

}  // namespace tolvane::agent
