#include "export/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <variant>
#include <vector>

#include "export/clean_name.h"

namespace tolvane::agent {

namespace {

// ---- What metrics are of, with the labels of each

struct CollectorRow {
    std::string labels;
    const CollectorHealth& health;
    const ProcessFacts& process;
};

struct StateRow {
    std::string labels;
    std::uint64_t runs;
};

struct ServerRow {
    std::string labels;
    const ServerTally& tally;
    const TrafficCounts& counts;
};

struct SiteRow {
    std::string labels;
    const TrafficCounts& counts;
};

struct CategoryRow {
    std::string labels;
    const CategoryCounts& counts;
    std::uint64_t answered;
};

struct Absent {};
using Number = std::variant<Absent, std::uint64_t, double>;

constexpr char kCounter[] = "counter";
constexpr char kGauge[] = "gauge";
constexpr char kSummary[] = "summary";

template <typename Row>
struct Family {
    const char* name;
    const char* type;
    const char* help;
    Number (*value)(const Row&);            // of a summary: its sum
    Number (*count)(const Row&) = nullptr;  // of a summary
};

// ---- The metrics

// For each server as tolvane_NAME, for each site as tolvane_site_NAME.
struct TrafficFamily {
    const char* name;
    const char* help;
    std::uint64_t TrafficCounts::*count;
};
constexpr TrafficFamily kTrafficFamilies[] = {
    {"connections_total", "Connections", &TrafficCounts::connections},
    {"requests_total", "Requests", &TrafficCounts::requests},
    {"sent_bytes_total", "Bytes sent to clients", &TrafficCounts::bytesSent},
    {"received_bytes_total", "Bytes received from clients", &TrafficCounts::bytesReceived},
    {"redirects_total", "Responses with a status of 300 to 399", &TrafficCounts::redirects},
    {"client_errors_total", "Responses with a status of 400 to 499", &TrafficCounts::clientErrors},
    {"server_errors_total", "Responses with a status of 500 to 599", &TrafficCounts::serverErrors},
    {"dropped_requests_total", "Requests whose connection closed before a response",
     &TrafficCounts::dropped},
};

constexpr Family<CategoryRow> kCategoryFamilies[] = {
    {"tolvane_category_requests_total", kCounter, "Requests whose URL is of the category.",
     [](const CategoryRow& row) -> Number { return row.counts.requests; }},
    {"tolvane_category_errors_total", kCounter,
     "Responses with a status of 400 to 599, of the category.",
     [](const CategoryRow& row) -> Number { return row.counts.errors; }},
    {"tolvane_category_dropped_requests_total", kCounter,
     "Requests of the category whose connection closed before a response.",
     [](const CategoryRow& row) -> Number { return row.counts.dropped; }},
    {"tolvane_category_sent_bytes_total", kCounter,
     "Bytes sent to clients in responses of the category.",
     [](const CategoryRow& row) -> Number { return row.counts.bytesSent; }},
    {"tolvane_category_response_seconds", kSummary,
     "Time from a request of the category to the start of its response, of those that were no "
     "error.",
     [](const CategoryRow& row) -> Number { return row.counts.responseTimeSum; },
     [](const CategoryRow& row) -> Number { return row.answered; }},
};

Number unlessZero(std::time_t time) {
    return time > 0 ? Number(static_cast<std::uint64_t>(time)) : Number(Absent{});
}

Number isUp(const ServerRow& row) {
    const std::vector<RunState>& runs = row.tally.runs;
    return std::uint64_t{std::any_of(runs.begin(), runs.end(), [](const RunState& run) {
        return run.state == WatchState::kLive;
    })};
}

Number newestStart(const ServerRow& row) {
    std::time_t newest = 0;
    for (const RunState& run : row.tally.runs) newest = std::max(newest, run.started);
    return unlessZero(newest);
}

Number attachedProcesses(const ServerRow& row) {
    std::uint64_t sum = 0;
    for (const RunState& run : row.tally.runs) sum += run.processes;
    return sum;
}

constexpr Family<ServerRow> kServerFamilies[] = {
    {"tolvane_server_up", kGauge, "1 while processes of the server run and are measured.", isUp},
    {"tolvane_server_start_time_seconds", kGauge,
     "Unix time at which the measurement of the server's newest run started.", newestStart},
    {"tolvane_server_attached_processes", kGauge,
     "Processes of the server that are attached to its shared memory.", attachedProcesses},
    {"tolvane_collector_takings_total", kCounter,
     "Times that the server's counts were taken, since the collector started.",
     [](const ServerRow& row) -> Number { return row.tally.takings; }},
    {"tolvane_collector_last_taking_timestamp_seconds", kGauge,
     "Unix time at which the server's counts were taken last.",
     [](const ServerRow& row) { return unlessZero(row.tally.lastTaking); }},
    {"tolvane_collector_busy_records_total", kCounter,
     "Records left for the next taking because a process of the server held their lock.",
     [](const ServerRow& row) -> Number { return row.tally.busyRecords; }},
};

constexpr Family<ServerRow> kServerInfo[] = {
    {"tolvane_server_info", kGauge, "The kind of server, as a label; the value is always 1.",
     [](const ServerRow&) -> Number { return std::uint64_t{1}; }},
};

constexpr Family<StateRow> kStateFamilies[] = {
    {"tolvane_collector_servers", kGauge, "Runs of servers that have shared memory, by state.",
     [](const StateRow& row) -> Number { return row.runs; }},
};

constexpr Family<CollectorRow> kBuildInfo[] = {
    {"tolvane_build_info", kGauge, "The program's version, as a label; the value is always 1.",
     [](const CollectorRow&) -> Number { return std::uint64_t{1}; }},
};

// Of the configuration file, when there is one.
template <typename Value>
Number ofConfig(const CollectorRow& row, Value value) {
    return row.health.configFile.empty() ? Number(Absent{}) : Number(std::uint64_t{value});
}

constexpr Family<CollectorRow> kCollectorFamilies[] = {
    {"tolvane_collector_rounds_total", kCounter,
     "Rounds in which the collector looked for servers and took their counts.",
     [](const CollectorRow& row) -> Number { return row.health.rounds; }},
    {"tolvane_collector_last_round_timestamp_seconds", kGauge,
     "Unix time of the collector's last round.",
     [](const CollectorRow& row) { return unlessZero(row.health.lastRound); }},
    {"tolvane_collector_round_seconds", kSummary, "Time that the collector's rounds took.",
     [](const CollectorRow& row) -> Number { return row.health.roundSeconds; },
     [](const CollectorRow& row) -> Number { return row.health.rounds; }},
    {"tolvane_collector_record_lock_seconds_total", kCounter,
     "Time for which the collector held locks that a server's processes might wait for.",
     [](const CollectorRow& row) -> Number { return row.health.lockSeconds; }},
    {"tolvane_collector_store_failures_total", kCounter,
     "Rounds whose totals could not be written to disk.",
     [](const CollectorRow& row) -> Number { return row.health.storeFailures; }},
    {"tolvane_collector_config_valid", kGauge,
     "1 while the configuration file is valid; servers keep the last valid one.",
     [](const CollectorRow& row) { return ofConfig(row, row.health.configValid); }},
    {"tolvane_collector_config_loaded_timestamp_seconds", kGauge,
     "Unix time at which the last valid configuration was read.",
     [](const CollectorRow& row) {
         return row.health.configFile.empty() ? Number(Absent{})
                                              : unlessZero(row.health.configLoaded);
     }},
    {"tolvane_collector_configurations_written_total", kCounter, "Configurations given to servers.",
     [](const CollectorRow& row) { return ofConfig(row, row.health.configWritten); }},
    {"tolvane_collector_configuration_failures_total", kCounter,
     "Servers that could not be given a configuration.",
     [](const CollectorRow& row) { return ofConfig(row, row.health.configFailures); }},
    {"process_cpu_seconds_total", kCounter, "User and system time of the collector.",
     [](const CollectorRow& row) -> Number { return row.process.cpuSeconds; }},
    {"process_resident_memory_bytes", kGauge, "Resident memory of the collector.",
     [](const CollectorRow& row) -> Number { return row.process.residentBytes; }},
    {"process_start_time_seconds", kGauge, "Unix time at which the collector started.",
     [](const CollectorRow& row) -> Number { return row.process.started; }},
    {"process_open_fds", kGauge, "Open file descriptors of the collector.",
     [](const CollectorRow& row) -> Number { return row.process.openDescriptors; }},
};

// ---- The text

// Labels of one series, joined to those before.
std::string withLabel(std::string labels, std::string_view name, std::string_view value) {
    if (!labels.empty()) labels += ',';
    labels += name;
    labels += "=\"";
    for (char c : value) {
        if (c == '"' || c == '\\') labels += '\\';
        labels += c;
    }
    labels += '"';
    return labels;
}

// What so many samples for each of the rows take at most. A text that grows
// beyond its memory is copied, and fresh memory is what it costs most.
template <typename Row>
std::size_t spaceFor(std::size_t samples, const std::vector<Row>& rows) {
    constexpr std::size_t kNameAndNumber = 70;
    std::size_t space = 0;
    for (const Row& row : rows) space += samples * (row.labels.size() + kNameAndNumber);
    return space;
}

class Exposition {
  public:
    explicit Exposition(std::size_t space) { text_.reserve(space); }

    template <typename Row, std::size_t n>
    void add(const Family<Row> (&families)[n], const std::vector<Row>& rows) {
        for (const Family<Row>& family : families) {
            bool any = std::any_of(rows.begin(), rows.end(), [&](const Row& row) {
                return !std::holds_alternative<Absent>(family.value(row));
            });
            if (!any) continue;
            head(family.name, family.help, family.type);
            for (const Row& row : rows) {
                const char* suffix = family.count != nullptr ? "_sum" : "";
                sample(family.name, suffix, row.labels, family.value(row));
                if (family.count != nullptr) {
                    sample(family.name, "_count", row.labels, family.count(row));
                }
            }
        }
    }

    template <typename Row>
    void addTraffic(const char* prefix, const char* of, const std::vector<Row>& rows) {
        for (const TrafficFamily& family : kTrafficFamilies) {
            if (rows.empty()) break;
            std::string name = std::string(prefix) + family.name;
            head(name, fmt::format("{}, {}.", family.help, of), kCounter);
            for (const Row& row : rows) sample(name, "", row.labels, row.counts.*family.count);
        }
    }

    std::string text() && { return std::move(text_); }

  private:
    void head(std::string_view name, std::string_view help, const char* type) {
        fmt::format_to(std::back_inserter(text_), "# HELP {0} {1}\n# TYPE {0} {2}\n", name, help,
                       type);
    }

    void sample(std::string_view name, std::string_view suffix, const std::string& labels,
                Number value) {
        if (std::holds_alternative<Absent>(value)) return;
        text_ += name;
        text_ += suffix;
        if (!labels.empty()) {
            text_ += '{';
            text_ += labels;
            text_ += '}';
        }
        text_ += ' ';
        append(value);
        text_ += '\n';
    }

    // Integers stay exact; of other numbers, the shortest text that reads back
    // as the same.
    void append(Number value) {
        if (auto* integer = std::get_if<std::uint64_t>(&value)) {
            fmt::format_int digits(*integer);
            text_.append(digits.data(), digits.size());
            return;
        }
        double number = std::get<double>(value);
        if (std::isnan(number)) {
            text_ += "NaN";
        } else if (std::isinf(number)) {
            text_ += number > 0 ? "+Inf" : "-Inf";
        } else {
            fmt::format_to(std::back_inserter(text_), "{}", number);
        }
    }

    std::string text_;
};

// ---- From the state to rows

struct Rows {
    std::vector<ServerRow> servers;
    std::vector<ServerRow> serverTypes;
    std::vector<SiteRow> sites;
    std::vector<CategoryRow> categories;
};

void addSites(Rows& rows, const ServerTally& tally, const std::string& serverLabel) {
    CleanNames sites;
    for (const SiteTally& site : tally.sites) {
        if (!site.configured) continue;
        std::string siteLabels = withLabel(serverLabel, "site", sites.add(site.name));
        CleanNames categories;
        for (const CategoryTally& category : site.categories) {
            if (!category.configured) continue;
            std::string labels = withLabel(siteLabels, "category", categories.add(category.label));
            rows.categories.push_back({std::move(labels), category.counts, category.answered});
        }
        rows.sites.push_back({std::move(siteLabels), site.counts});
    }
}

Rows makeRows(const CollectorState& state) {
    Rows rows;
    CleanNames servers;
    for (const auto& [key, tally] : state.servers) {
        std::string serverLabel = withLabel("", "server", servers.add(tally.name));
        std::string typeLabels = withLabel(serverLabel, "type", cleanName(tally.type));
        addSites(rows, tally, serverLabel);
        rows.serverTypes.push_back({std::move(typeLabels), tally, tally.total});
        rows.servers.push_back({std::move(serverLabel), tally, tally.total});
    }
    return rows;
}

std::vector<StateRow> runsByState(const CollectorState& state) {
    std::vector<StateRow> rows;
    for (WatchState wanted : kWatchStates) {
        std::uint64_t runs = 0;
        for (const auto& [name, tally] : state.servers) {
            runs += static_cast<std::uint64_t>(
                std::count_if(tally.runs.begin(), tally.runs.end(),
                              [&](const RunState& run) { return run.state == wanted; }));
        }
        rows.push_back({withLabel("", "state", watchStateName(wanted)), runs});
    }
    return rows;
}

}  // namespace

std::string metricsText(const CollectorState& state, const ProcessFacts& process,
                        const std::string& version) {
    Rows rows = makeRows(state);
    constexpr std::size_t kHelp = 16U << 10;
    Exposition exposition(kHelp + spaceFor(15, rows.servers) +
                          spaceFor(std::size(kTrafficFamilies), rows.sites) +
                          spaceFor(std::size(kCategoryFamilies) + 1, rows.categories));
    exposition.add(kBuildInfo,
                   {CollectorRow{withLabel("", "version", version), state.health, process}});
    exposition.add(kCollectorFamilies, {CollectorRow{"", state.health, process}});
    exposition.add(kStateFamilies, runsByState(state));
    exposition.add(kServerInfo, rows.serverTypes);
    exposition.add(kServerFamilies, rows.servers);
    exposition.addTraffic("tolvane_", "by server", rows.servers);
    exposition.addTraffic("tolvane_site_", "by site", rows.sites);
    exposition.add(kCategoryFamilies, rows.categories);
    return std::move(exposition).text();
}

}  // namespace tolvane::agent
