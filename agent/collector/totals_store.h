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

// Servers, sites and categories of which nothing was seen for so long are
// forgotten.
inline constexpr std::time_t kKeptFor = 30L * 86400;

class TotalsStore {
  public:
    // Opens the database in the directory, and makes one when there is none.
    // One that is damaged is put aside, with a message. Throws Failure.
    explicit TotalsStore(const std::string& directory);
    ~TotalsStore();
    TotalsStore(const TotalsStore&) = delete;
    TotalsStore& operator=(const TotalsStore&) = delete;

    void load(CollectorState& state);
    std::vector<RunKey> runs();
    std::optional<TakenSoFar> loadRun(const RunKey& key);

    // All changes of a round stand between these two. Everything here throws
    // Failure when the database cannot be written; it then is as before begin.
    void begin();
    void commit();
    void rollback() noexcept;

    // Its rows that differ from what is written down, or all of them.
    enum class Rows { kUnkept, kAll };
    void keepServer(const ServerTally& server, Rows rows, std::time_t now);
    void keepRun(const RunKey& key, const std::string& server, const TakenSoFar& taken);
    void forgetRun(const RunKey& key);
    void forgetOld(std::time_t now);

  private:
    class Statement;

    void open();
    void close();
    void execute(const char* sql);
    void keepRow(const ServerTally& server, const SiteTally* site, const CategoryTally* category,
                 std::time_t now);
    [[noreturn]] void raise(const char* what) const;

    std::string path_;
    bool damaged_ = false;
    sqlite3* database_ = nullptr;
    std::unique_ptr<Statement> keepServer_, keepRow_, keepRun_, forgetRun_;
};

}  // namespace tolvane::agent
