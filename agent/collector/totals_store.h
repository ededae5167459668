// The totals on disk: a database that is updated in one transaction per round,
// so that the totals always match the counts that were collected.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collector/state.h"
#include "collector/watched_run.h"
#include "os/error.h"

namespace SQLite {
class Database;
class Statement;
}  // namespace SQLite

namespace tolvane::agent {

// The row of a run cannot be used.
class DamagedProgress : public Error {
  public:
    using Error::Error;
};

class TotalsStore {
  public:
    // Opens the database in the directory, or creates it. A damaged database is
    // renamed, with a message. Throws Error.
    explicit TotalsStore(const std::string& directory);
    ~TotalsStore();
    TotalsStore(const TotalsStore&) = delete;
    TotalsStore& operator=(const TotalsStore&) = delete;

    void load(CollectorState& state);
    std::vector<RunKey> runs();
    // Nothing if there is none. Throws DamagedProgress.
    std::optional<RunProgress> loadRun(const RunKey& key);

    // All changes of a round are made between begin and commit. Each function throws
    // Error if the database cannot be written; its content is then that before begin.
    void begin();
    void commit();
    void rollback() noexcept;

    // The rows that differ from the database, or all of them.
    enum class Rows { kDirty, kAll };
    void saveServer(const ServerTally& server, Rows rows);
    // Deletes all servers, before the present servers are saved with all rows.
    void deleteServers();
    void saveRun(const RunKey& key, const std::string& server, const RunProgress& progress);
    void deleteRun(const RunKey& key);

  private:
    struct Row;

    void open();
    void close();
    void addMissingColumns();
    void saveRow(const Row& row);
    void execute(const std::string& sql);
    template <typename Action>
    auto guarded(Action&& action) const;

    std::string path_;
    std::unique_ptr<SQLite::Database> database_;
    std::unique_ptr<SQLite::Statement> saveServer_, saveRow_, saveRun_, deleteRun_;
};

}  // namespace tolvane::agent
