#include "collector/tally.h"

#include <algorithm>

namespace tolvane::agent {

namespace {

// Any process can write into a segment, and a single huge sum would make the mean
// permanently wrong. The responses may be those of earlier requests.
bool isPlausible(const CategoryCounts& counts) {
    constexpr double kLongest = 86400;  // seconds
    constexpr double kInProgress = 1000;
    double sum = counts.responseTimeSum;
    double requests = static_cast<double>(counts[&CategoryCounters::requests]);
    return sum >= 0 && sum <= kLongest * (requests + kInProgress);
}

// Returns the increase of `responses`.
std::uint64_t add(CategoryTally& tally, const CategoryCounts& counts) {
    CategoryCounts& sum = tally.counts;
    sum.Sums::add(counts);
    if (isPlausible(counts)) sum.responseTimeSum += counts.responseTimeSum;
    std::uint64_t requests = sum[&CategoryCounters::requests];
    std::uint64_t without = std::min(
        requests, sum[&CategoryCounters::errors] + sum[&CategoryCounters::droppedRequests]);
    std::uint64_t before = tally.responses;
    tally.responses = std::max(before, requests - without);
    return tally.responses - before;
}

// A site and its categories may differ: a publication may have been interrupted
// between the two.
bool isEmpty(const CountSet& counts, std::size_t site) {
    return counts.site[site].empty() &&
           std::all_of(std::begin(counts.category[site]), std::end(counts.category[site]),
                       [](const CategoryCounts& category) { return category.empty(); });
}

HistoryPoint pointOf(std::uint64_t requests, std::uint64_t errors) {
    HistoryPoint point;
    point.requests = static_cast<std::uint32_t>(requests);
    point.errors = static_cast<std::uint32_t>(errors);
    return point;
}

HistoryPoint pointOf(const TrafficCounts& counts) {
    return pointOf(counts[&CounterBlock::requests], counts[&CounterBlock::errors]);
}

template <typename Row>
Row& rowNamed(std::vector<Row>& rows, std::string Row::*key, const std::string& name) {
    auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Row& row) { return row.*key == name; });
    if (found != rows.end()) return *found;
    rows.emplace_back().*key = name;
    return rows.back();
}

// Moves the row of that name, made if necessary, to `place` and increments
// `place`, unless the row is before `place` already.
template <typename Row>
Row& placeRow(std::vector<Row>& rows, std::string Row::*key, const std::string& name,
              std::size_t& place) {
    auto at = static_cast<std::size_t>(&rowNamed(rows, key, name) - rows.data());
    if (at < place) return rows[at];
    auto row = rows.begin() + static_cast<std::ptrdiff_t>(at);
    std::rotate(rows.begin() + static_cast<std::ptrdiff_t>(place), row, row + 1);
    return rows[place++];
}

// Returns the point of all categories of the site.
HistoryPoint addCategories(SiteTally& site, const CategoryCounts (&counts)[kMaxCategories],
                           const SiteEntry& names, std::time_t now, InHistory inHistory) {
    HistoryPoint all;
    for (std::size_t c = 0; c < kMaxCategories; ++c) {
        if (names.labels[c].empty() || counts[c].empty()) continue;
        CategoryTally& category = rowNamed(site.categories, &CategoryTally::label, names.labels[c]);
        HistoryPoint point =
            pointOf(counts[c][&CategoryCounters::requests], counts[c][&CategoryCounters::errors]);
        point.responses = static_cast<std::uint32_t>(add(category, counts[c]));
        if (isPlausible(counts[c])) {
            point.responseSeconds = static_cast<float>(counts[c].responseTimeSum);
        }
        if (inHistory == InHistory::kYes) category.history.add(now, point);
        all.responses += point.responses;
        all.responseSeconds += point.responseSeconds;
        category.seen = now;
        category.dirty = true;
    }
    return all;
}

// The rows configured longest ago are the last.
template <typename Row>
void dropBeyond(std::vector<Row>& rows, std::size_t most) {
    if (rows.size() > most)
        rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(most), rows.end());
}

}  // namespace

void addCounts(ServerTally& tally, const CountSet& counts, const NameTable& names, std::time_t now,
               InHistory inHistory) {
    HistoryPoint whole = pointOf(counts.total);
    for (std::size_t s = 0; s < names.size(); ++s) {
        if (names[s].name.empty() || isEmpty(counts, s)) continue;
        SiteTally& site = rowNamed(tally.sites, &SiteTally::name, names[s].name);
        HistoryPoint point = addCategories(site, counts.category[s], names[s], now, inHistory);
        whole.responses += point.responses;
        whole.responseSeconds += point.responseSeconds;
        HistoryPoint requests = pointOf(counts.site[s]);
        point.requests = requests.requests;
        point.errors = requests.errors;
        site.counts.add(counts.site[s]);
        if (inHistory == InHistory::kYes) site.history.add(now, point);
        site.seen = now;
        site.dirty = true;
    }
    tally.total.add(counts.total);
    if (inHistory == InHistory::kYes) tally.history.add(now, whole);
    tally.dirty = true;
}

void markConfigured(ServerTally& tally, const ConfigInfo& config, std::time_t now) {
    auto unmark = [now](auto& row) {
        if (row.configured) row.seen = now;
        row.configured = false;
    };
    for (SiteTally& site : tally.sites) {
        unmark(site);
        for (CategoryTally& category : site.categories) unmark(category);
    }
    std::size_t place = 0;
    for (int s = 0; s < config.numSites; ++s) {
        std::string name = config.siteName[s];
        if (name.empty()) continue;
        SiteTally& site = placeRow(tally.sites, &SiteTally::name, name, place);
        site.configured = true;
        site.seen = now;
        std::size_t below = 0;
        for (int c = 0; c < config.numCategories[s]; ++c) {
            const CategoryConfig& category = config.categories[s][c];
            if (category.numSections == 0) continue;
            CategoryTally& row =
                placeRow(site.categories, &CategoryTally::label, labelOf(category, c), below);
            row.configured = true;
            row.seen = now;
        }
        dropBeyond(site.categories, kMostRows);
    }
    dropBeyond(tally.sites, kMostRows);
}

void dropOldRows(ServerTally& tally, std::time_t oldest) {
    auto old = [&](const auto& row) { return !row.configured && row.seen < oldest; };
    std::erase_if(tally.sites, old);
    for (SiteTally& site : tally.sites) std::erase_if(site.categories, old);
}

}  // namespace tolvane::agent
