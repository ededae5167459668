#include "counts/report.h"

namespace tolvane::agent {

namespace {

using Level = ReportRow::Level;

std::optional<double> share(std::uint64_t part, std::uint64_t whole) {
    if (whole == 0) return std::nullopt;
    return static_cast<double>(part) / static_cast<double>(whole);
}

// Response times are summed over responses of status class below 4, so the
// requests that failed or got no response do not count.
std::optional<double> meanResponse(const CategoryCounts& counts) {
    std::uint64_t without =
        counts[&CategoryCounters::errors] + counts[&CategoryCounters::droppedRequests];
    std::uint64_t requests = counts[&CategoryCounters::requests];
    if (requests <= without || !(counts.responseTimeSum >= 0)) return std::nullopt;
    return counts.responseTimeSum / static_cast<double>(requests - without);
}

ReportRow trafficRow(Level level, std::string name, const TrafficCounts& counts,
                     const TrafficCounts& added, double seconds) {
    ReportRow row;
    row.level = level;
    row.name = std::move(name);
    row.counts = counts;
    row.errorShare = share(counts[&CounterBlock::errors], counts[&CounterBlock::requests]);
    if (seconds > 0) {
        row.requestsPerSecond = static_cast<double>(added[&CounterBlock::requests]) / seconds;
        row.bytesSentPerSecond = static_cast<double>(added[&CounterBlock::bytesSent]) / seconds;
    }
    return row;
}

}  // namespace

Report buildReport(const ConfigInfo& config, const CountSet& counts, const CountSet& added,
                   double seconds) {
    Report report;
    report.rows.push_back(
        trafficRow(Level::kTotal, "all traffic", counts.total, added.total, seconds));
    CategoryCounts everywhere;
    for (int s = 0; s < config.numSites; ++s) {
        // A removed site or category leaves an empty entry.
        if (config.siteName[s][0] == '\0') continue;
        std::size_t siteRow = report.rows.size();
        report.rows.push_back(
            trafficRow(Level::kSite, config.siteName[s], counts.site[s], added.site[s], seconds));
        CategoryCounts ofSite;
        for (int c = 0; c < config.numCategories[s]; ++c) {
            const CategoryConfig& configured = config.categories[s][c];
            if (configured.numSections == 0 && configured.label[0] == '\0') continue;
            const CategoryCounts& category = counts.category[s][c];
            report.rows.push_back(trafficRow(Level::kCategory, configured.label,
                                             asTraffic(category), asTraffic(added.category[s][c]),
                                             seconds));
            report.rows.back().meanResponse = meanResponse(category);
            ofSite.add(category);
        }
        report.rows[siteRow].meanResponse = meanResponse(ofSite);
        everywhere.add(ofSite);
    }
    report.rows[0].meanResponse = meanResponse(everywhere);
    return report;
}

}  // namespace tolvane::agent
