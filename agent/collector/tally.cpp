#include "collector/tally.h"

#include <algorithm>

#include "os/text.h"

namespace tolvane::agent {

namespace {

bool isEmpty(const TrafficCounts& counts) {
    return counts.connections == 0 && counts.requests == 0 && counts.bytesSent == 0 &&
           counts.bytesReceived == 0 && counts.errors == 0 && counts.dropped == 0 &&
           counts.redirects == 0;
}

bool isEmpty(const CategoryCounts& counts) {
    return counts.requests == 0 && counts.bytesSent == 0 && counts.errors == 0 &&
           counts.dropped == 0 && counts.responseTimeSum == 0;
}

void add(TrafficCounts& sum, const TrafficCounts& counts) {
    sum.connections += counts.connections;
    sum.requests += counts.requests;
    sum.bytesSent += counts.bytesSent;
    sum.bytesReceived += counts.bytesReceived;
    sum.errors += counts.errors;
    sum.dropped += counts.dropped;
    sum.redirects += counts.redirects;
    sum.clientErrors += counts.clientErrors;
    sum.serverErrors += counts.serverErrors;
}

// Anybody may write into a segment, and one wild sum would spoil the mean for
// ever. Responses may be those of earlier requests.
bool isPlausible(const CategoryCounts& counts) {
    constexpr double kLongest = 86400;  // seconds
    constexpr double kUnderWay = 1000;
    double sum = counts.responseTimeSum;
    return sum >= 0 && sum <= kLongest * (static_cast<double>(counts.requests) + kUnderWay);
}

// Returns by how much `answered` grew.
std::uint64_t add(CategoryTally& tally, const CategoryCounts& counts) {
    CategoryCounts& sum = tally.counts;
    sum.requests += counts.requests;
    sum.bytesSent += counts.bytesSent;
    sum.errors += counts.errors;
    sum.dropped += counts.dropped;
    if (isPlausible(counts)) sum.responseTimeSum += counts.responseTimeSum;
    std::uint64_t without = std::min(sum.requests, sum.errors + sum.dropped);
    std::uint64_t before = tally.answered;
    tally.answered = std::max(before, sum.requests - without);
    return tally.answered - before;
}

// Counts of a site and its categories may come apart, when a publication was
// interrupted between the two.
bool isEmpty(const CountSet& counts, std::size_t site) {
    return isEmpty(counts.site[site]) &&
           std::all_of(std::begin(counts.category[site]), std::end(counts.category[site]),
                       [](const CategoryCounts& category) { return isEmpty(category); });
}

HistoryPoint pointOf(std::uint64_t requests, std::uint64_t errors) {
    HistoryPoint point;
    point.requests = static_cast<std::uint32_t>(requests);
    point.errors = static_cast<std::uint32_t>(errors);
    return point;
}

template <typename Row>
Row& rowNamed(std::vector<Row>& rows, std::string Row::*key, const std::string& name) {
    auto found =
        std::find_if(rows.begin(), rows.end(), [&](const Row& row) { return row.*key == name; });
    if (found != rows.end()) return *found;
    rows.emplace_back().*key = name;
    return rows.back();
}

// Makes the row if there is none, moves it to `place` unless it stands before
// that, and raises `place` when it did not.
template <typename Row>
Row& placeRow(std::vector<Row>& rows, std::string Row::*key, const std::string& name,
              std::size_t& place) {
    auto at = static_cast<std::size_t>(&rowNamed(rows, key, name) - rows.data());
    if (at < place) return rows[at];
    auto row = rows.begin() + static_cast<std::ptrdiff_t>(at);
    std::rotate(rows.begin() + static_cast<std::ptrdiff_t>(place), row, row + 1);
    return rows[place++];
}

// Returns the point of the site's categories together.
HistoryPoint addCategories(SiteTally& site, const CategoryCounts (&counts)[kMaxCategories],
                           const SiteNames& names, std::time_t now, InHistory inHistory) {
    HistoryPoint all;
    for (std::size_t c = 0; c < kMaxCategories; ++c) {
        if (names.labels[c].empty() || isEmpty(counts[c])) continue;
        CategoryTally& category = rowNamed(site.categories, &CategoryTally::label, names.labels[c]);
        HistoryPoint point = pointOf(counts[c].requests, counts[c].errors);
        point.answered = static_cast<std::uint32_t>(add(category, counts[c]));
        if (isPlausible(counts[c])) {
            point.responseSeconds = static_cast<float>(counts[c].responseTimeSum);
        }
        if (inHistory == InHistory::kYes) category.history.add(now, point);
        all.answered += point.answered;
        all.responseSeconds += point.responseSeconds;
        category.seen = now;
        category.unkept = true;
    }
    return all;
}

// Those configured longest ago stand last.
template <typename Row>
void dropBeyond(std::vector<Row>& rows, std::size_t most) {
    if (rows.size() > most)
        rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(most), rows.end());
}

}  // namespace

void addCounts(ServerTally& tally, const CountSet& counts, const Names& names, std::time_t now,
               InHistory inHistory) {
    HistoryPoint whole = pointOf(counts.total.requests, counts.total.errors);
    for (std::size_t s = 0; s < names.size(); ++s) {
        if (names[s].name.empty() || isEmpty(counts, s)) continue;
        SiteTally& site = rowNamed(tally.sites, &SiteTally::name, names[s].name);
        HistoryPoint point = addCategories(site, counts.category[s], names[s], now, inHistory);
        whole.answered += point.answered;
        whole.responseSeconds += point.responseSeconds;
        point.requests = static_cast<std::uint32_t>(counts.site[s].requests);
        point.errors = static_cast<std::uint32_t>(counts.site[s].errors);
        add(site.counts, counts.site[s]);
        if (inHistory == InHistory::kYes) site.history.add(now, point);
        site.seen = now;
        site.unkept = true;
    }
    add(tally.total, counts.total);
    if (inHistory == InHistory::kYes) tally.history.add(now, whole);
    tally.unkept = true;
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
        std::string name = printable(config.siteName[s]);
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

void forgetRows(ServerTally& tally, std::time_t oldest) {
    auto forgotten = [&](const auto& row) { return !row.configured && row.seen < oldest; };
    std::erase_if(tally.sites, forgotten);
    for (SiteTally& site : tally.sites) std::erase_if(site.categories, forgotten);
}

}  // namespace tolvane::agent
