#include "export/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <variant>
#include <vector>

namespace tolvane::agent {

namespace {

// ---- The objects that metrics describe, each with its labels

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
    std::uint64_t responses;
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

constexpr Family<CategoryRow> kCategoryFamilies[] = {
    {"tolvane_category_response_seconds", kSummary,
     "Time from a request to the start of its response, for responses without error, by "
     "category.",
     [](const CategoryRow& row) -> Number { return row.counts.responseTimeSum; },
     [](const CategoryRow& row) -> Number { return row.responses; }},
};

Number unlessZero(std::time_t time) {
    return time > 0 ? Number(static_cast<std::uint64_t>(time)) : Number(Absent{});
}

Number isUp(const ServerRow& row) {
    const std::vector<RunStatus>& runs = row.tally.runs;
    return std::uint64_t{std::any_of(runs.begin(), runs.end(), [](const RunStatus& run) {
        return run.state == RunState::kLive;
    })};
}

Number newestStart(const ServerRow& row) {
    std::time_t newest = 0;
    for (const RunStatus& run : row.tally.runs) newest = std::max(newest, run.started);
    return unlessZero(newest);
}

Number attachedProcesses(const ServerRow& row) {
    std::uint64_t sum = 0;
    for (const RunStatus& run : row.tally.runs) sum += run.processes;
    return sum;
}

constexpr Family<ServerRow> kServerFamilies[] = {
    {"tolvane_server_up", kGauge, "1 while the server runs and is measured.", isUp},
    {"tolvane_server_start_time_seconds", kGauge,
     "Unix time at which the server's newest run started.", newestStart},
    {"tolvane_server_attached_processes", kGauge,
     "Processes that have the server's shared memory attached.", attachedProcesses},
    {"tolvane_collector_collections_total", kCounter,
     "Collections of the server's counts since the collector started.",
     [](const ServerRow& row) -> Number { return row.tally.collections; }},
    {"tolvane_collector_last_collection_timestamp_seconds", kGauge,
     "Unix time of the last collection of the server's counts.",
     [](const ServerRow& row) { return unlessZero(row.tally.lastCollection); }},
    {"tolvane_collector_busy_records_total", kCounter,
     "Records left for the next collection because a process of the server held their lock.",
     [](const ServerRow& row) -> Number { return row.tally.busyRecords; }},
};

constexpr Family<ServerRow> kServerInfo[] = {
    {"tolvane_server_info", kGauge, "The server's type as a label; the value is always 1.",
     [](const ServerRow&) -> Number { return std::uint64_t{1}; }},
};

constexpr Family<StateRow> kStateFamilies[] = {
    {"tolvane_collector_servers", kGauge,
     "Runs of servers that have a shared memory segment, by state.",
     [](const StateRow& row) -> Number { return row.runs; }},
};

constexpr Family<CollectorRow> kBuildInfo[] = {
    {"tolvane_build_info", kGauge, "The program's version as a label; the value is always 1.",
     [](const CollectorRow&) -> Number { return std::uint64_t{1}; }},
};

// A value about the configuration file, absent without a file.
template <typename Value>
Number ofConfig(const CollectorRow& row, Value value) {
    return row.health.configFile.empty() ? Number(Absent{}) : Number(std::uint64_t{value});
}

constexpr Family<CollectorRow> kCollectorFamilies[] = {
    {"tolvane_collector_rounds_total", kCounter,
     "Rounds in which the collector found servers and collected their counts.",
     [](const CollectorRow& row) -> Number { return row.health.rounds; }},
    {"tolvane_collector_last_round_timestamp_seconds", kGauge,
     "Unix time of the collector's last round.",
     [](const CollectorRow& row) { return unlessZero(row.health.lastRound); }},
    {"tolvane_collector_round_seconds", kSummary, "Duration of the collector's rounds.",
     [](const CollectorRow& row) -> Number { return row.health.roundSeconds; },
     [](const CollectorRow& row) -> Number { return row.health.rounds; }},
    {"tolvane_collector_record_lock_seconds_total", kCounter,
     "Time for which the collector held locks of records.",
     [](const CollectorRow& row) -> Number { return row.health.lockSeconds; }},
    {"tolvane_collector_store_failures_total", kCounter, "Rounds whose totals could not be saved.",
     [](const CollectorRow& row) -> Number { return row.health.storeFailures; }},
    {"tolvane_collector_configuration_valid", kGauge,
     "1 while the configuration file is valid; servers keep the last valid configuration.",
     [](const CollectorRow& row) { return ofConfig(row, row.health.configValid); }},
    {"tolvane_collector_configuration_loaded_timestamp_seconds", kGauge,
     "Unix time at which the last valid configuration was read.",
     [](const CollectorRow& row) {
         return row.health.configFile.empty() ? Number(Absent{})
                                              : unlessZero(row.health.configLoaded);
     }},
    {"tolvane_collector_configurations_written_total", kCounter,
     "Configurations written to servers.",
     [](const CollectorRow& row) { return ofConfig(row, row.health.configWritten); }},
    {"tolvane_collector_configuration_failures_total", kCounter,
     "Configurations that could not be written to a server.",
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

// The maximum size in bytes of this number of samples for each of the rows. It is
// reserved, because growing the text by copies is the largest cost.
template <typename Row>
std::size_t spaceFor(std::size_t samples, const std::vector<Row>& rows) {
    constexpr std::size_t kNameAndNumber = 70;
    std::size_t space = 0;
    for (const Row& row : rows) space += samples * (row.labels.size() + kNameAndNumber);
    return space;
}

template <typename Block>
constexpr const auto& tableOf(const Sums<Block>&) {
    return countersOf<Block>();
}

// Written by hand: a client library would keep each value as a double, which is
// inexact above 2^53.
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

    // The counters of a block, each as a family of its own.
    template <typename Row>
    void addCounters(std::string_view prefix, std::string_view by, const std::vector<Row>& rows) {
        if (rows.empty()) return;
        const auto& first = rows.front().counts;
        for (std::size_t i = 0; i < first.values.size(); ++i) {
            const auto& counter = tableOf(first)[i];
            std::string name = fmt::format("{}{}_total", prefix, counter.name);
            head(name, fmt::format("{}, by {}.", counter.help, by), kCounter);
            for (const Row& row : rows) sample(name, "", row.labels, row.counts.values[i]);
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
    for (const SiteTally& site : tally.sites) {
        if (!site.configured) continue;
        std::string siteLabels = withLabel(serverLabel, "site", site.name);
        for (const CategoryTally& category : site.categories) {
            if (!category.configured) continue;
            rows.categories.push_back({withLabel(siteLabels, "category", category.label),
                                       category.counts, category.responses});
        }
        rows.sites.push_back({std::move(siteLabels), site.counts});
    }
}

Rows makeRows(const CollectorState& state) {
    Rows rows;
    for (const auto& [name, tally] : state.servers) {
        std::string serverLabel = withLabel("", "server", name);
        addSites(rows, tally, serverLabel);
        rows.serverTypes.push_back(
            {withLabel(serverLabel, "type", tally.type), tally, tally.total});
        rows.servers.push_back({std::move(serverLabel), tally, tally.total});
    }
    return rows;
}

std::vector<StateRow> runsByState(const CollectorState& state) {
    std::vector<StateRow> rows;
    for (RunState wanted : kRunStates) {
        std::uint64_t runs = 0;
        for (const auto& [name, tally] : state.servers) {
            runs += static_cast<std::uint64_t>(
                std::count_if(tally.runs.begin(), tally.runs.end(),
                              [&](const RunStatus& run) { return run.state == wanted; }));
        }
        rows.push_back({withLabel("", "state", runStateName(wanted)), runs});
    }
    return rows;
}

}  // namespace

std::string metricsText(const CollectorState& state, const ProcessFacts& process,
                        const std::string& version) {
    Rows rows = makeRows(state);
    constexpr std::size_t kHelp = 16U << 10;
    Exposition exposition(kHelp + spaceFor(TrafficCounts::kCount + 8, rows.servers) +
                          spaceFor(TrafficCounts::kCount, rows.sites) +
                          spaceFor(CategoryCounts::kCount + 2, rows.categories));
    exposition.add(kBuildInfo,
                   {CollectorRow{withLabel("", "version", version), state.health, process}});
    exposition.add(kCollectorFamilies, {CollectorRow{"", state.health, process}});
    exposition.add(kStateFamilies, runsByState(state));
    exposition.add(kServerInfo, rows.serverTypes);
    exposition.add(kServerFamilies, rows.servers);
    exposition.addCounters("tolvane_", "server", rows.servers);
    exposition.addCounters("tolvane_site_", "site", rows.sites);
    exposition.addCounters("tolvane_category_", "category", rows.categories);
    exposition.add(kCategoryFamilies, rows.categories);
    return std::move(exposition).text();
}

}  // namespace tolvane::agent
