#include "collector/totals_store.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "collector/log.h"
#include "os/error.h"

namespace tolvane::agent {

namespace {

constexpr int kFormat = 1;

// `level` is 0 for a server's total, 1 for a site, 2 for a category; names below
// the level are empty.
constexpr char kTables[] = R"(
CREATE TABLE IF NOT EXISTS server (name TEXT PRIMARY KEY, type TEXT NOT NULL, seen INTEGER NOT NULL)
  WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS total (
  server TEXT NOT NULL, level INTEGER NOT NULL, site TEXT NOT NULL, category TEXT NOT NULL,
  configured INTEGER NOT NULL, connections INTEGER NOT NULL, requests INTEGER NOT NULL,
  bytes_sent INTEGER NOT NULL, bytes_received INTEGER NOT NULL, errors INTEGER NOT NULL,
  dropped INTEGER NOT NULL, redirects INTEGER NOT NULL, client_errors INTEGER NOT NULL,
  server_errors INTEGER NOT NULL, response_seconds REAL NOT NULL, answered INTEGER NOT NULL,
  seen INTEGER NOT NULL, PRIMARY KEY (server, level, site, category)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS run (
  shmid INTEGER NOT NULL, created INTEGER NOT NULL, pid INTEGER NOT NULL, server TEXT NOT NULL,
  names TEXT NOT NULL, records BLOB NOT NULL, PRIMARY KEY (shmid, created, pid)) WITHOUT ROWID;
)";

// Most words of a record are 0: each other one is kept with its place.
struct PlacedWord {
    std::uint32_t place;
    std::uint32_t value;
};
constexpr std::size_t kRecordWords = sizeof(ResultStruct) / sizeof(std::uint32_t);

std::vector<PlacedWord> packRecords(const std::vector<ResultStruct>& records) {
    std::vector<PlacedWord> packed;
    packed.reserve(records.size() * kRecordWords);
    std::uint32_t words[kRecordWords];
    std::uint32_t place = 0;
    for (const ResultStruct& record : records) {
        std::memcpy(words, &record, sizeof record);
        for (std::uint32_t word : words) {
            if (word != 0) packed.push_back({place, word});
            ++place;
        }
    }
    return packed;
}

std::vector<ResultStruct> unpackRecords(const PlacedWord* packed, std::size_t count,
                                        std::size_t records) {
    std::vector<std::uint32_t> words(records * kRecordWords);
    for (std::size_t i = 0; i < count; ++i) {
        if (packed[i].place < words.size()) words[packed[i].place] = packed[i].value;
    }
    std::vector<ResultStruct> unpacked(records);
    std::memcpy(unpacked.data(), words.data(), words.size() * sizeof(std::uint32_t));
    return unpacked;
}

nlohmann::json namesToJson(const TakenSoFar& taken) {
    nlohmann::json sites = nlohmann::json::array();
    for (const SiteNames& site : taken.names) sites.push_back({site.name, site.labels});
    return {{"records", taken.records.size()}, {"sites", std::move(sites)}};
}

}  // namespace

class TotalsStore::Statement {
  public:
    Statement(TotalsStore& store, const char* sql) : store_(store) {
        if (sqlite3_prepare_v2(store.database_, sql, -1, &statement_, nullptr) != SQLITE_OK) {
            store.raise("cannot be used");
        }
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(std::int64_t value) {
        sqlite3_bind_int64(statement_, ++bound_, value);
        return *this;
    }
    Statement& bind(std::uint64_t value) { return bind(static_cast<std::int64_t>(value)); }
    Statement& bind(std::int32_t value) { return bind(std::int64_t{value}); }
    Statement& bind(bool value) { return bind(std::int64_t{value}); }
    Statement& bind(double value) {
        sqlite3_bind_double(statement_, ++bound_, value);
        return *this;
    }
    // The text has to stay until the statement has run.
    Statement& bind(const std::string& text) {
        sqlite3_bind_text(statement_, ++bound_, text.data(), static_cast<int>(text.size()),
                          SQLITE_STATIC);
        return *this;
    }
    Statement& bind(const std::vector<PlacedWord>& words) {
        sqlite3_bind_blob(statement_, ++bound_,
                          words.empty() ? "" : static_cast<const void*>(words.data()),
                          static_cast<int>(words.size() * sizeof(PlacedWord)), SQLITE_STATIC);
        return *this;
    }

    // The next row; false when there is none.
    bool step() {
        int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) return true;
        sqlite3_reset(statement_);
        bound_ = 0;
        if (result != SQLITE_DONE) store_.raise("cannot be written");
        return false;
    }
    void run() {
        while (step()) {
        }
    }

    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    std::uint64_t count(int column) const { return static_cast<std::uint64_t>(integer(column)); }
    double real(int column) const { return sqlite3_column_double(statement_, column); }
    std::string text(int column) const {
        auto text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
        return text == nullptr ? "" : text;
    }
    std::vector<ResultStruct> records(int column, std::size_t count) const {
        auto packed = static_cast<const PlacedWord*>(sqlite3_column_blob(statement_, column));
        auto bytes = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
        return unpackRecords(packed, packed == nullptr ? 0 : bytes / sizeof(PlacedWord), count);
    }

  private:
    TotalsStore& store_;
    sqlite3_stmt* statement_ = nullptr;
    int bound_ = 0;
};

TotalsStore::TotalsStore(const std::string& directory) : path_(directory + "/totals.db") {
    try {
        open();
        return;
    } catch (const Error& error) {
        int code = sqlite3_errcode(database_) & 0xff;
        close();
        if (!damaged_ && code != SQLITE_CORRUPT && code != SQLITE_NOTADB) throw;
        std::string aside = fmt::format("{}.damaged-{}", path_, std::time(nullptr));
        if (std::rename(path_.c_str(), aside.c_str()) != 0) throw;
        std::remove((path_ + "-wal").c_str());
        logLine("{}; it is kept as {}, and the totals start anew", error.what(), aside);
    }
    open();
}

TotalsStore::~TotalsStore() {
    close();
}

void TotalsStore::close() {
    keepServer_.reset();
    keepRow_.reset();
    keepRun_.reset();
    forgetRun_.reset();
    sqlite3_close(database_);
    database_ = nullptr;
}

void TotalsStore::open() {
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path_.c_str(), &database_, flags, nullptr) != SQLITE_OK) {
        raise("cannot be opened");
    }
    // Nobody else writes, so no shared memory file is needed beside the log. A
    // power failure may cost the last seconds, a killed collector nothing.
    execute(
        "PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL;"
        "PRAGMA synchronous = NORMAL; PRAGMA cache_size = -1024");
    Statement check(*this, "PRAGMA quick_check(1)");
    if (!check.step() || check.text(0) != "ok") {
        damaged_ = true;
        fail(ErrorKind::kFailed, "{} is damaged", path_);
    }
    while (check.step()) {
    }
    Statement version(*this, "PRAGMA user_version");
    version.step();
    std::int64_t format = version.integer(0);
    if (format > kFormat) {
        fail(ErrorKind::kFailed, "{} was written by a newer version of this program", path_);
    }
    if (format == 0) {
        execute(
            fmt::format("BEGIN; {} PRAGMA user_version = {}; COMMIT", kTables, kFormat).c_str());
    }
    keepServer_ = std::make_unique<Statement>(*this, "REPLACE INTO server VALUES (?, ?, ?)");
    keepRow_ = std::make_unique<Statement>(
        *this, "REPLACE INTO total VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    keepRun_ = std::make_unique<Statement>(*this, "REPLACE INTO run VALUES (?, ?, ?, ?, ?, ?)");
    forgetRun_ = std::make_unique<Statement>(
        *this, "DELETE FROM run WHERE shmid = ? AND created = ? AND pid = ?");
}

void TotalsStore::raise(const char* what) const {
    fail(ErrorKind::kFailed, "{} {}: {}", path_, what, sqlite3_errmsg(database_));
}

void TotalsStore::execute(const char* sql) {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        raise("cannot be written");
    }
}

void TotalsStore::load(CollectorState& state) {
    Statement servers(*this, "SELECT name, type, seen FROM server");
    while (servers.step()) {
        ServerTally& server = state.servers[servers.text(0)];
        server.name = servers.text(0);
        server.type = servers.text(1);
        server.seen = servers.integer(2);
    }
    Statement rows(*this, "SELECT * FROM total ORDER BY server, level, site, category");
    while (rows.step()) {
        auto found = state.servers.find(rows.text(0));
        if (found == state.servers.end()) continue;
        TrafficCounts counts;
        counts.connections = rows.count(5);
        counts.requests = rows.count(6);
        counts.bytesSent = rows.count(7);
        counts.bytesReceived = rows.count(8);
        counts.errors = rows.count(9);
        counts.dropped = rows.count(10);
        counts.redirects = rows.count(11);
        counts.clientErrors = rows.count(12);
        counts.serverErrors = rows.count(13);
        std::vector<SiteTally>& sites = found->second.sites;
        std::int64_t level = rows.integer(1);
        if (level == 0) {
            found->second.total = counts;
        } else if (level == 1) {
            SiteTally& site = sites.emplace_back();
            site.name = rows.text(2);
            site.configured = rows.integer(4) != 0;
            site.counts = counts;
            site.seen = rows.integer(16);
        } else {
            for (SiteTally& site : sites) {
                if (site.name != rows.text(2)) continue;
                CategoryTally& category = site.categories.emplace_back();
                category.label = rows.text(3);
                category.configured = rows.integer(4) != 0;
                category.counts = {counts.requests, counts.bytesSent, counts.errors, counts.dropped,
                                   rows.real(14)};
                category.answered = rows.count(15);
                category.seen = rows.integer(16);
            }
        }
    }
}

std::vector<RunKey> TotalsStore::runs() {
    std::vector<RunKey> keys;
    Statement rows(*this, "SELECT shmid, created, pid FROM run");
    while (rows.step()) {
        keys.push_back({static_cast<std::int32_t>(rows.integer(0)), rows.integer(1),
                        static_cast<pid_t>(rows.integer(2))});
    }
    return keys;
}

std::optional<TakenSoFar> TotalsStore::loadRun(const RunKey& key) {
    Statement row(*this,
                  "SELECT names, records FROM run WHERE shmid = ? AND created = ? AND pid = ?");
    row.bind(key.shmid).bind(std::int64_t{key.created}).bind(key.pid);
    if (!row.step()) return std::nullopt;
    TakenSoFar taken;
    auto names = nlohmann::json::parse(row.text(0));
    for (std::size_t s = 0; s < taken.names.size(); ++s) {
        names["sites"].at(s).at(0).get_to(taken.names[s].name);
        names["sites"].at(s).at(1).get_to(taken.names[s].labels);
    }
    taken.records = row.records(1, names["records"].get<std::size_t>());
    return taken;
}

void TotalsStore::begin() {
    execute("BEGIN IMMEDIATE");
}

void TotalsStore::commit() {
    execute("COMMIT");
}

void TotalsStore::rollback() noexcept {
    sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void TotalsStore::keepServer(const ServerTally& server, Rows rows) {
    bool all = rows == Rows::kAll;
    if (all) keepServer_->bind(server.name).bind(server.type).bind(std::int64_t{server.seen}).run();
    if (all || server.unkept) keepRow(server, nullptr, nullptr);
    for (const SiteTally& site : server.sites) {
        if (all || site.unkept) keepRow(server, &site, nullptr);
        for (const CategoryTally& category : site.categories) {
            if (all || category.unkept) keepRow(server, &site, &category);
        }
    }
}

// Without a category the row is the site's, and without a site the server's.
void TotalsStore::keepRow(const ServerTally& server, const SiteTally* site,
                          const CategoryTally* category) {
    static const std::string kNone;
    TrafficCounts counts = site == nullptr ? server.total : site->counts;
    bool configured = site == nullptr || site->configured;
    std::time_t seen = site == nullptr ? server.seen : site->seen;
    if (category != nullptr) {
        counts = {};
        counts.requests = category->counts.requests;
        counts.bytesSent = category->counts.bytesSent;
        counts.errors = category->counts.errors;
        counts.dropped = category->counts.dropped;
        configured = category->configured;
        seen = category->seen;
    }
    keepRow_->bind(server.name)
        .bind(site == nullptr       ? 0
              : category == nullptr ? 1
                                    : 2)
        .bind(site == nullptr ? kNone : site->name)
        .bind(category == nullptr ? kNone : category->label)
        .bind(configured)
        .bind(counts.connections)
        .bind(counts.requests)
        .bind(counts.bytesSent)
        .bind(counts.bytesReceived)
        .bind(counts.errors)
        .bind(counts.dropped)
        .bind(counts.redirects)
        .bind(counts.clientErrors)
        .bind(counts.serverErrors)
        .bind(category == nullptr ? 0.0 : category->counts.responseTimeSum)
        .bind(category == nullptr ? 0 : category->answered)
        .bind(std::int64_t{seen})
        .run();
}

void TotalsStore::keepRun(const RunKey& key, const std::string& server, const TakenSoFar& taken) {
    std::string names = namesToJson(taken).dump();
    std::vector<PlacedWord> records = packRecords(taken.records);
    keepRun_->bind(key.shmid)
        .bind(std::int64_t{key.created})
        .bind(key.pid)
        .bind(server)
        .bind(names)
        .bind(records)
        .run();
}

void TotalsStore::forgetRun(const RunKey& key) {
    forgetRun_->bind(key.shmid).bind(std::int64_t{key.created}).bind(key.pid).run();
}

void TotalsStore::forgetServers() {
    execute("DELETE FROM total; DELETE FROM server");
}

}  // namespace tolvane::agent
