// Writes the configuration of a file to servers, and again when the file changes.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "collector/log.h"
#include "collector/watched_run.h"

namespace tolvane::agent {

// The sync state of a run's configuration.
struct ConfigSync {
    std::uint64_t revision = 0;  // of the file, as written to the run; 0: none
    std::int32_t version = 0;    // of the configuration whose names are known
    std::int32_t noted = 0;      // the last version that was written here or logged
    std::chrono::steady_clock::time_point othersMarkSince{};
    LastingCondition trouble;
};

class Configurer {
  public:
    enum class Outcome { kNothing, kWritten, kFailed };

    // With an empty path, no configuration is written.
    explicit Configurer(std::string path);

    // Reads the file if it has changed and then stayed unchanged for a second, because
    // it may be incomplete before.
    void poll();
    // Reads the file at once.
    void reload();

    bool valid() const { return valid_; }
    std::time_t loaded() const { return loaded_; }

    // Writes the configuration to a live run that does not have this revision of
    // the file. Never waits: after a failure the next call tries again.
    Outcome apply(WatchedRun& run, ConfigSync& sync, const std::string& server);

  private:
    struct FileStamp {
        std::int64_t modified = -1;
        std::uint64_t inode = 0;
        std::int64_t size = -1;
        bool operator==(const FileStamp&) const = default;
    };
    FileStamp stamp() const;
    void load();
    bool othersAreWriting(WatchedRun& run, ConfigSync& sync) const;

    std::string path_;
    FileStamp seen_;
    std::chrono::steady_clock::time_point seenSince_{};
    FileStamp read_;
    bool valid_ = true;
    std::time_t loaded_ = 0;
    std::uint64_t revision_ = 0;
    std::unique_ptr<ConfigInfo> block_;  // of the last valid file
};

}  // namespace tolvane::agent
