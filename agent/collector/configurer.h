// Gives servers the configuration of a file, and again when the file changes.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "collector/log.h"
#include "collector/watched_run.h"

namespace tolvane::agent {

// One run's dealings with its configuration.
struct ConfigDealings {
    std::uint64_t given = 0;   // the file's revision that it was given, 0: none
    std::int32_t version = 0;  // of the configuration whose names are known
    std::int32_t written = 0;  // the last one that was accounted for: ours, or one that was noted
    std::chrono::steady_clock::time_point othersMarkSince{};
    LastingCondition trouble;
};

class Configurer {
  public:
    enum class Outcome { kNothing, kWritten, kFailed };

    // An empty path: there is nothing to give.
    explicit Configurer(std::string path);

    // Looks whether the file has changed. A change is taken once the file has
    // been left alone for a second, since it may be half written.
    void look();
    // Does not wait for that.
    void lookNow();

    bool valid() const { return valid_; }
    std::time_t loaded() const { return loaded_; }

    // Gives a live run the configuration if it has not had this revision of the
    // file yet. Never waits: what cannot be done now is tried at the next call.
    Outcome give(WatchedRun& run, ConfigDealings& dealings, const std::string& server);

  private:
    struct FileMark {
        std::int64_t modified = -1;
        std::uint64_t inode = 0;
        std::int64_t size = -1;
        bool operator==(const FileMark&) const = default;
    };
    FileMark mark() const;
    void load();
    bool othersAreWriting(WatchedRun& run, ConfigDealings& dealings) const;

    std::string path_;
    FileMark seen_;
    std::chrono::steady_clock::time_point seenSince_{};
    FileMark taken_;
    bool valid_ = true;
    std::time_t loaded_ = 0;
    std::uint64_t revision_ = 0;
    std::unique_ptr<ConfigInfo> block_;  // of the last valid file
};

}  // namespace tolvane::agent
