// The counts of a server as rows: the total, the sites and their categories.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "counts/counts.h"

namespace tolvane::agent {

struct ReportRow {
    enum class Level { kTotal, kSite, kCategory };
    Level level = Level::kTotal;
    std::string name;
    TrafficCounts counts;
    double requestsPerSecond = 0;
    double bytesSentPerSecond = 0;
    std::optional<double> errorShare;    // errors per request, 0 to 1
    std::optional<double> meanResponse;  // seconds
};

// The total first, then each site followed by its categories.
struct Report {
    std::vector<ReportRow> rows;
};

// The rates are `added` divided by `seconds`.
Report buildReport(const ConfigInfo& config, const CountSet& counts, const CountSet& added,
                   double seconds);

}  // namespace tolvane::agent
