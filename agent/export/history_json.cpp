#include "export/history_json.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

namespace tolvane::agent {

namespace {

// Written without a JSON document in memory: such a document takes several times as
// long, and the collector waits meanwhile.
std::string quoted(const std::string& name) {
    return nlohmann::json(name).dump();
}

void appendNumber(std::string& text, std::uint32_t number) {
    fmt::format_int digits(number);
    text.append(digits.data(), digits.size());
}

// In whole microseconds, which keeps the text short.
void appendNumber(std::string& text, float seconds) {
    double rounded = std::round(static_cast<double>(seconds) * 1e6) / 1e6;
    char digits[32];
    if (!std::isfinite(rounded)) rounded = 0;
    auto end = std::to_chars(digits, digits + sizeof digits, rounded).ptr;
    text.append(digits, end);
}

template <typename Number>
void appendList(std::string& text, const char* name, const std::vector<HistoryPoint>& points,
                Number HistoryPoint::*number) {
    if (!text.empty()) text += ',';
    text += fmt::format("\"{}\":[", name);
    for (const HistoryPoint& point : points) {
        appendNumber(text, point.*number);
        text += ',';
    }
    text.back() = ']';
}

// The members of an object; empty when nothing was counted.
std::string seriesOf(const History& history, std::time_t now) {
    std::vector<HistoryPoint> points = history.points(now);
    // The present step is incomplete and would look like a drop.
    if (!points.empty()) points.pop_back();
    bool any = std::any_of(points.begin(), points.end(), [](const HistoryPoint& point) {
        return point.requests > 0 || point.errors > 0 || point.responses > 0;
    });
    std::string text;
    if (!any) return text;
    appendList(text, "requests", points, &HistoryPoint::requests);
    appendList(text, "errors", points, &HistoryPoint::errors);
    appendList(text, "response_seconds", points, &HistoryPoint::responseSeconds);
    appendList(text, "response_count", points, &HistoryPoint::responses);
    return text;
}

void appendItem(std::string& list, const std::string& item) {
    if (item.empty()) return;
    if (!list.empty()) list += ',';
    list += item;
}

std::string siteHistory(const SiteTally& site, std::time_t now) {
    std::string series = seriesOf(site.history, now);
    std::string categories;
    for (const CategoryTally& category : site.categories) {
        std::string label = quoted(category.label);
        std::string points = seriesOf(category.history, now);
        if (!points.empty()) appendItem(categories, "{\"label\":" + label + "," + points + "}");
    }
    if (series.empty() && categories.empty()) return "";
    return "{\"name\":" + quoted(site.name) + "," + (series.empty() ? "" : series + ",") +
           "\"categories\":[" + categories + "]}";
}

std::string serverHistory(const ServerTally& server, std::time_t now) {
    std::string series = seriesOf(server.history, now);
    std::string sites;
    for (const SiteTally& site : server.sites) {
        appendItem(sites, siteHistory(site, now));
    }
    if (series.empty() && sites.empty()) return "";
    return "{\"name\":" + quoted(server.name) + ",\"total\":{" + series + "},\"sites\":[" + sites +
           "]}";
}

}  // namespace

std::string historyJson(const CollectorState& state, std::time_t now,
                        const std::optional<std::string>& server) {
    std::string servers;
    for (const auto& [key, tally] : state.servers) {
        if (!server || *server == tally.name) appendItem(servers, serverHistory(tally, now));
    }
    return fmt::format("{{\"step\":{},\"end\":{},\"servers\":[{}]}}", kHistoryStep,
                       now - now % kHistoryStep, servers);
}

}  // namespace tolvane::agent
