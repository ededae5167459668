#include "collector/totals_store.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <set>

#include "collector/log.h"
#include "collector/packed_records.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

constexpr int kFormat = 2;

// `level` is 0 for a server's total, 1 for a site, 2 for a category; names below
// the level are empty. The counters' columns are added by their names.
constexpr char kTables[] = R"(
CREATE TABLE IF NOT EXISTS server (name TEXT PRIMARY KEY, type TEXT NOT NULL, seen INTEGER NOT NULL)
  WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS total (
  server TEXT NOT NULL, level INTEGER NOT NULL, site TEXT NOT NULL, category TEXT NOT NULL,
  configured INTEGER NOT NULL, response_seconds REAL NOT NULL, responses INTEGER NOT NULL,
  seen INTEGER NOT NULL, PRIMARY KEY (server, level, site, category)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS run (
  shmid INTEGER NOT NULL, created INTEGER NOT NULL, pid INTEGER NOT NULL, server TEXT NOT NULL,
  names TEXT NOT NULL, records BLOB NOT NULL, PRIMARY KEY (shmid, created, pid)) WITHOUT ROWID;
)";

constexpr char kFromFormat1[] = R"(
ALTER TABLE total RENAME COLUMN bytes_sent TO sent_bytes;
ALTER TABLE total RENAME COLUMN bytes_received TO received_bytes;
ALTER TABLE total RENAME COLUMN dropped TO dropped_requests;
ALTER TABLE total RENAME COLUMN answered TO responses;
)";

// Every counter of either table has a column of its name.
const std::set<std::string>& counterColumns() {
    static const std::set<std::string> kColumns = [] {
        std::set<std::string> columns;
        for (const auto& counter : kTrafficCounters) columns.insert(counter.name);
        for (const auto& counter : kCategoryCounters) columns.insert(counter.name);
        return columns;
    }();
    return kColumns;
}

std::string saveRowStatement() {
    std::string columns = "server,level,site,category,configured,response_seconds,responses,seen";
    std::string values =
        ":server,:level,:site,:category,:configured,:response_seconds,:responses,:seen";
    for (const std::string& column : counterColumns()) {
        columns += "," + column;
        values += ",:" + column;
    }
    return fmt::format("REPLACE INTO total ({}) VALUES ({})", columns, values);
}

template <typename Block>
void bindCounts(SQLite::Statement& statement, const Sums<Block>& sums) {
    for (const std::string& column : counterColumns()) {
        statement.bind(":" + column, static_cast<std::int64_t>(sums.named(column).value_or(0)));
    }
}

template <typename Block>
void readCounts(SQLite::Statement& statement, Sums<Block>& sums) {
    for (const auto& counter : countersOf<Block>()) {
        sums[counter.member] =
            static_cast<std::uint64_t>(statement.getColumn(counter.name).getInt64());
    }
}

nlohmann::json namesToJson(const RunProgress& progress) {
    nlohmann::json sites = nlohmann::json::array();
    for (const SiteEntry& site : progress.names) sites.push_back({site.name, site.labels});
    return {{"records", progress.records.size()}, {"sites", std::move(sites)}};
}

RunProgress progressIn(const std::string& text, const SQLite::Column& packed) {
    RunProgress progress;
    auto names = nlohmann::json::parse(text);
    for (std::size_t s = 0; s < progress.names.size(); ++s) {
        names.at("sites").at(s).at(0).get_to(progress.names[s].name);
        names.at("sites").at(s).at(1).get_to(progress.names[s].labels);
    }
    auto records = names.at("records").get<std::size_t>();
    constexpr std::size_t kMostRecords = 1U << 20;
    if (records > kMostRecords) {
        throw DamagedProgress(ErrorKind::kFailed, fmt::format("{} records in a run", records));
    }
    progress.records =
        unpackRecords(static_cast<const PackedWord*>(packed.getBlob()),
                      static_cast<std::size_t>(packed.getBytes()) / sizeof(PackedWord), records);
    return progress;
}

void bindKey(SQLite::Statement& statement, const RunKey& key) {
    statement.bind(":shmid", key.shmid);
    statement.bind(":created", std::int64_t{key.created});
    statement.bind(":pid", key.pid);
}

std::string nameIn(SQLite::Statement& statement, const char* column) {
    return printable(statement.getColumn(column).getString());
}

void run(SQLite::Statement& statement) {
    // Reset whether it succeeds or not, so that the next round can use it.
    struct Reset {
        SQLite::Statement& statement;
        ~Reset() { statement.tryReset(); }
    } reset{statement};
    statement.exec();
}

class Damaged : public Error {
  public:
    using Error::Error;
};

}  // namespace

// The key of a total, and its values other than counters.
struct TotalsStore::Row {
    const ServerTally& server;
    const SiteTally* site = nullptr;          // null: the server's total
    const CategoryTally* category = nullptr;  // null: the site's total
};

// Converts SQLite's exceptions to Error.
template <typename Action>
auto TotalsStore::guarded(Action&& action) const {
    try {
        return action();
    } catch (const SQLite::Exception& error) {
        std::string text = fmt::format("{}: {}", path_, error.what());
        int code = error.getErrorCode() & 0xff;
        // While it is opened, an error in SQL means that a table or a column is missing.
        bool unusable = code == SQLITE_ERROR && !saveServer_;
        if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB || unusable) {
            throw Damaged(ErrorKind::kFailed, text);
        }
        throw Error(ErrorKind::kFailed, text);
    }
}

TotalsStore::TotalsStore(const std::string& directory) : path_(directory + "/totals.db") {
    try {
        open();
        return;
    } catch (const Damaged& error) {
        close();
        std::string aside = fmt::format("{}.damaged-{}", path_, std::time(nullptr));
        if (std::rename(path_.c_str(), aside.c_str()) != 0) throw;
        std::remove((path_ + "-wal").c_str());
        logLine("{}; it is renamed to {}, and the totals start from 0", error.what(), aside);
    }
    open();
}

TotalsStore::~TotalsStore() {
    close();
}

void TotalsStore::close() {
    saveServer_.reset();
    saveRow_.reset();
    saveRun_.reset();
    deleteRun_.reset();
    database_.reset();
}

void TotalsStore::open() {
    guarded([&] {
        database_ = std::make_unique<SQLite::Database>(
            path_, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE | SQLite::OPEN_NOMUTEX);
        // No other process writes, so the log needs no shared memory file. A power
        // failure may lose the last seconds; a kill loses nothing.
        database_->exec(
            "PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL;"
            "PRAGMA synchronous = NORMAL; PRAGMA cache_size = -1024");
        if (database_->execAndGet("PRAGMA quick_check(1)").getString() != "ok") {
            throw Damaged(ErrorKind::kFailed, fmt::format("{} is damaged", path_));
        }
        int format = database_->execAndGet("PRAGMA user_version").getInt();
        if (format > kFormat) {
            fail(ErrorKind::kFailed, "{} was written by a newer version of this program", path_);
        }
        SQLite::Transaction transaction(*database_);
        if (format == 1) database_->exec(kFromFormat1);
        database_->exec(kTables);
        addMissingColumns();
        if (format != kFormat) database_->exec(fmt::format("PRAGMA user_version = {}", kFormat));
        transaction.commit();
        auto prepare = [&](const std::string& sql) {
            return std::make_unique<SQLite::Statement>(*database_, sql);
        };
        saveRow_ = prepare(saveRowStatement());
        saveRun_ = prepare(
            "REPLACE INTO run (shmid, created, pid, server, names, records) "
            "VALUES (:shmid, :created, :pid, :server, :names, :records)");
        deleteRun_ =
            prepare("DELETE FROM run WHERE shmid = :shmid AND created = :created AND pid = :pid");
        // The last: from now on it is open.
        saveServer_ =
            prepare("REPLACE INTO server (name, type, seen) VALUES (:name, :type, :seen)");
    });
}

// A counter that is new in the tables of counters gets its column here.
void TotalsStore::addMissingColumns() {
    std::set<std::string> missing = counterColumns();
    SQLite::Statement columns(*database_, "SELECT name FROM pragma_table_info('total')");
    while (columns.executeStep()) missing.erase(columns.getColumn("name").getString());
    for (const std::string& column : missing) {
        database_->exec(
            fmt::format("ALTER TABLE total ADD COLUMN {} INTEGER NOT NULL DEFAULT 0", column));
    }
}

void TotalsStore::execute(const std::string& sql) {
    guarded([&] { database_->exec(sql); });
}

void TotalsStore::load(CollectorState& state) {
    guarded([&] {
        SQLite::Statement servers(*database_, "SELECT name, type, seen FROM server");
        while (servers.executeStep()) {
            std::string name = nameIn(servers, "name");
            ServerTally& server = state.servers[name];
            server.name = name;
            server.type = nameIn(servers, "type");
            server.seen = servers.getColumn("seen").getInt64();
        }
        SQLite::Statement rows(*database_,
                               "SELECT * FROM total ORDER BY server, level, site, category");
        while (rows.executeStep()) {
            auto found = state.servers.find(nameIn(rows, "server"));
            if (found == state.servers.end()) continue;
            std::vector<SiteTally>& sites = found->second.sites;
            auto readRow = [&](auto& row) {
                readCounts(rows, row.counts);
                row.configured = rows.getColumn("configured").getInt() != 0;
                row.seen = rows.getColumn("seen").getInt64();
            };
            int level = rows.getColumn("level").getInt();
            std::string siteName = nameIn(rows, "site");
            if (level == 0) {
                readCounts(rows, found->second.total);
            } else if (level == 1) {
                SiteTally& site = sites.emplace_back();
                site.name = siteName;
                readRow(site);
            } else if (!sites.empty()) {
                auto site = std::find_if(sites.begin(), sites.end(), [&](const SiteTally& each) {
                    return each.name == siteName;
                });
                if (site == sites.end()) continue;
                CategoryTally& category = site->categories.emplace_back();
                category.label = nameIn(rows, "category");
                readRow(category);
                category.counts.responseTimeSum = rows.getColumn("response_seconds").getDouble();
                category.responses =
                    static_cast<std::uint64_t>(rows.getColumn("responses").getInt64());
            }
        }
    });
}

std::vector<RunKey> TotalsStore::runs() {
    return guarded([&] {
        std::vector<RunKey> keys;
        SQLite::Statement rows(*database_, "SELECT shmid, created, pid FROM run");
        while (rows.executeStep()) {
            keys.push_back({rows.getColumn("shmid").getInt(), rows.getColumn("created").getInt64(),
                            rows.getColumn("pid").getInt()});
        }
        return keys;
    });
}

std::optional<RunProgress> TotalsStore::loadRun(const RunKey& key) {
    return guarded([&]() -> std::optional<RunProgress> {
        SQLite::Statement row(*database_,
                              "SELECT names, records FROM run "
                              "WHERE shmid = :shmid AND created = :created AND pid = :pid");
        bindKey(row, key);
        if (!row.executeStep()) return std::nullopt;
        try {
            return progressIn(row.getColumn("names").getString(), row.getColumn("records"));
        } catch (const nlohmann::json::exception& error) {
            throw DamagedProgress(ErrorKind::kFailed, fmt::format("{}: {}", path_, error.what()));
        }
    });
}

void TotalsStore::begin() {
    execute("BEGIN IMMEDIATE");
}

void TotalsStore::commit() {
    execute("COMMIT");
}

void TotalsStore::rollback() noexcept {
    database_->tryExec("ROLLBACK");
}

void TotalsStore::saveServer(const ServerTally& server, Rows rows) {
    bool all = rows == Rows::kAll;
    guarded([&] {
        if (all) {
            saveServer_->bind(":name", server.name);
            saveServer_->bind(":type", server.type);
            saveServer_->bind(":seen", std::int64_t{server.seen});
            run(*saveServer_);
        }
        if (all || server.dirty) saveRow({server});
        for (const SiteTally& site : server.sites) {
            if (all || site.dirty) saveRow({server, &site});
            for (const CategoryTally& category : site.categories) {
                if (all || category.dirty) saveRow({server, &site, &category});
            }
        }
    });
}

void TotalsStore::saveRow(const Row& row) {
    SQLite::Statement& statement = *saveRow_;
    const auto& [server, site, category] = row;
    bool configured = true;
    std::time_t seen = server.seen;
    int level = 0;
    if (category != nullptr) {
        level = 2;
        configured = category->configured;
        seen = category->seen;
        bindCounts(statement, category->counts);
    } else if (site != nullptr) {
        level = 1;
        configured = site->configured;
        seen = site->seen;
        bindCounts(statement, site->counts);
    } else {
        bindCounts(statement, server.total);
    }
    statement.bind(":server", server.name);
    statement.bind(":level", level);
    statement.bind(":site", site == nullptr ? "" : site->name);
    statement.bind(":category", category == nullptr ? "" : category->label);
    statement.bind(":configured", configured ? 1 : 0);
    statement.bind(":response_seconds",
                   category == nullptr ? 0.0 : category->counts.responseTimeSum);
    statement.bind(":responses",
                   category == nullptr ? 0 : static_cast<std::int64_t>(category->responses));
    statement.bind(":seen", std::int64_t{seen});
    run(statement);
}

void TotalsStore::saveRun(const RunKey& key, const std::string& server,
                          const RunProgress& progress) {
    std::vector<PackedWord> records = packRecords(progress.records);
    guarded([&] {
        bindKey(*saveRun_, key);
        saveRun_->bind(":server", server);
        saveRun_->bind(":names", namesToJson(progress).dump());
        saveRun_->bind(":records", records.data(),
                       static_cast<int>(records.size() * sizeof(PackedWord)));
        run(*saveRun_);
    });
}

void TotalsStore::deleteRun(const RunKey& key) {
    guarded([&] {
        bindKey(*deleteRun_, key);
        run(*deleteRun_);
    });
}

void TotalsStore::deleteServers() {
    execute("DELETE FROM total; DELETE FROM server");
}

}  // namespace tolvane::agent
