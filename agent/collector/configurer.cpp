#include "collector/configurer.h"

#include <sys/stat.h>

#include <cstring>
#include <ctime>

#include "configuration/config_block.h"
#include "configuration/config_load.h"
#include "configuration/config_writer.h"
#include "os/error.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

// All that an agent writes, but for the version.
bool sameConfiguration(const ConfigInfo& a, const ConfigInfo& b) {
    constexpr std::size_t kFrom = offsetof(ConfigInfo, numCategories);
    constexpr std::size_t kTo = offsetof(ConfigInfo, parentPid);
    return a.numSites == b.numSites && a.interval == b.interval &&
           std::memcmp(reinterpret_cast<const char*>(&a) + kFrom,
                       reinterpret_cast<const char*>(&b) + kFrom, kTo - kFrom) == 0;
}

}  // namespace

Configurer::Configurer(std::string path) : path_(std::move(path)) {
    lookNow();
}

Configurer::FileMark Configurer::mark() const {
    struct stat status {};
    if (::stat(path_.c_str(), &status) != 0) return {};
    return {status.st_mtim.tv_sec * 1000000000 + status.st_mtim.tv_nsec, status.st_ino,
            status.st_size};
}

void Configurer::look() {
    if (path_.empty()) return;
    constexpr auto kSettled = 1s;
    FileMark current = mark();
    auto now = std::chrono::steady_clock::now();
    if (current != seen_) seenSince_ = now;
    seen_ = current;
    if (current != taken_ && now - seenSince_ >= kSettled) load();
}

void Configurer::lookNow() {
    if (path_.empty()) return;
    seen_ = mark();
    load();
}

void Configurer::load() {
    taken_ = seen_;
    LoadedConfig config = loadConfig(path_, WithoutSites::kRefused, PipeWriter::kIgnored);
    valid_ = config.complaints.empty();
    if (!valid_) {
        for (const std::string& complaint : config.complaints) logLine("{}", complaint);
        logLine("{} is not valid; servers {}", path_,
                block_ ? "keep the configuration before" : "are not configured");
        return;
    }
    auto block = buildConfigBlock(config.model);
    loaded_ = std::time(nullptr);
    if (block_ && sameConfiguration(*block, *block_)) return;
    block_ = std::move(block);
    ++revision_;
    logLine("{}: {}", path_, summaryOf(config.model));
}

// Another agent that has begun a configuration gets some time to finish it.
bool Configurer::othersAreWriting(WatchedRun& run, ConfigDealings& dealings) const {
    constexpr auto kPatience = 5s;
    std::int32_t version = run.segment().version();
    auto now = std::chrono::steady_clock::now();
    if (!isBeingWritten(version) || isRewriting(version)) {
        dealings.othersMarkSince = {};
        return false;
    }
    if (dealings.othersMarkSince == std::chrono::steady_clock::time_point{}) {
        dealings.othersMarkSince = now;
    }
    if (now - dealings.othersMarkSince < kPatience) return true;
    logLine("{}: another agent began a configuration (version {}) and did not finish it",
            run.handoff().path, version);
    return false;
}

Configurer::Outcome Configurer::give(WatchedRun& run, ConfigDealings& dealings,
                                     const std::string& server) {
    if (!block_ || dealings.given == revision_ || othersAreWriting(run, dealings)) {
        return Outcome::kNothing;
    }
    try {
        auto placed = placeConfiguration(*block_, run.names());
        ConfigLock lock(run.handoff().path, 0s);
        std::int32_t version = run.segment().version();
        bool equal = version > 0 && sameConfiguration(*run.segment().config(), *placed);
        if (!equal) version = writeConfiguration(run.segment(), *placed, 0s).version;
        dealings.given = revision_;
        dealings.written = version;
        dealings.trouble.is("");
        if (equal) return Outcome::kNothing;
        logLine("server {}: configuration {} written", server, version);
        return Outcome::kWritten;
    } catch (const Error& error) {
        dealings.trouble.is(
            fmt::format("server {}: not configured: {}; it is tried again", server, error.what()));
        return Outcome::kFailed;
    }
}

}  // namespace tolvane::agent
