// The totals on disk: a database that is brought up to date in one transaction
// per round, so that totals and what they were taken from always fit together.
#pragma once

#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collector/state.h"
#include "collector/watched_run.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tolvane::agent {

class TotalsStore {
  public:
    // Opens the database in the directory, and makes one when there is none.
    // One that is damaged is put aside, with a message. Throws Error.
    explicit TotalsStore(const std::string& directory);
    ~TotalsStore();
    TotalsStore(const TotalsStore&) = delete;
    TotalsStore& operator=(const TotalsStore&) = delete;

    void load(CollectorState& state);
    std::vector<RunKey> runs();
    std::optional<TakenSoFar> loadRun(const RunKey& key);

    // All changes of a round stand between these two. Everything here throws
    // Error when the database cannot be written; it then is as before begin.
    void begin();
    void commit();
    void rollback() noexcept;

    // Its rows that differ from what is written down, or all of them.
    enum class Rows { kUnkept, kAll };
    void keepServer(const ServerTally& server, Rows rows);
    // All of them, before those that there are now are kept whole.
    void forgetServers();
    void keepRun(const RunKey& key, const std::string& server, const TakenSoFar& taken);
    void forgetRun(const RunKey& key);

  private:
    class Statement;

    void open();
    void close();
    void execute(const char* sql);
    void keepRow(const ServerTally& server, const SiteTally* site, const CategoryTally* category);
    [[noreturn]] void raise(const char* what) const;

    std::string path_;
    bool damaged_ = false;
    sqlite3* database_ = nullptr;
    std::unique_ptr<Statement> keepServer_, keepRow_, keepRun_, forgetRun_;
};

}  // namespace tolvane::agent
