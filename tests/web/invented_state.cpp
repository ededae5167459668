#include "web/invented_state.h"

#include <cmath>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tolvane::test {

using namespace tolvane::agent;

namespace {

// Traffic that rises and falls, some of it in error, around so many requests
// per step.
void invent(History& history, double requests, int seed, std::time_t now) {
    for (int step = kHistoryPoints; step > 0; --step) {
        double wave =
            1 + 0.4 * std::sin((step + seed * 7) / 9.0) + 0.1 * std::sin((step * 13 + seed) * 1.7);
        HistoryPoint point;
        point.requests = static_cast<std::uint32_t>(requests * wave);
        if ((step * 31 + seed * 17) % 23 < 2) point.errors = point.requests / 20 + 1;
        if (point.errors > point.requests) point.errors = point.requests;
        point.answered = point.requests - point.errors;
        point.responseSeconds =
            static_cast<float>(point.answered * 0.008 * (1 + seed % 5) * (2 - wave * 0.6));
        history.add(now - step * kHistoryStep, point);
    }
}

CategoryTally category(const std::string& label, std::uint64_t requests, int seed,
                       std::time_t now) {
    CategoryTally tally;
    tally.label = label;
    tally.configured = true;
    tally.counts = {requests, requests * 5120, requests / 100, requests / 1000, 0};
    tally.answered = requests - requests / 100 - requests / 1000;
    tally.counts.responseTimeSum = static_cast<double>(tally.answered) * 0.008 * (1 + seed % 5);
    if (requests > 0) invent(tally.history, static_cast<double>(requests) / 5000, seed, now);
    return tally;
}

TrafficCounts traffic(std::uint64_t requests) {
    TrafficCounts counts;
    counts.connections = requests / 3;
    counts.requests = requests;
    counts.bytesSent = requests * 5120;
    counts.bytesReceived = requests * 410;
    counts.errors = requests / 100;
    counts.clientErrors = requests / 125;
    counts.serverErrors = requests / 100 - requests / 125;
    counts.redirects = requests / 20;
    counts.dropped = requests / 1000;
    return counts;
}

SiteTally site(const std::string& name, const std::vector<std::string>& labels,
               std::uint64_t requests, int seed, std::time_t now) {
    SiteTally tally;
    tally.name = name;
    tally.configured = true;
    tally.counts = traffic(requests);
    if (requests > 0) invent(tally.history, static_cast<double>(requests) / 5000, seed, now);
    for (std::size_t i = 0; i < labels.size(); ++i) {
        tally.categories.push_back(
            category(labels[i], requests / (i + 2), seed + static_cast<int>(i), now));
    }
    return tally;
}

ServerTally server(const std::string& name, std::vector<SiteTally> sites, std::uint64_t requests,
                   std::time_t now) {
    ServerTally tally;
    tally.name = name;
    tally.type = "APACHE";
    tally.total = traffic(requests);
    tally.sites = std::move(sites);
    if (requests > 0) invent(tally.history, static_cast<double>(requests) / 5000, 3, now);
    tally.runs.push_back(
        {WatchState::kLive, "12 processes attached", 98305, 811, 812, now - 90000, 16, 3, 12});
    tally.takings = 100;
    tally.lastTaking = now;
    return tally;
}

void add(CollectorState& state, ServerTally tally) {
    std::string name = tally.name;
    state.servers.emplace(std::move(name), std::move(tally));
}

void addShop(CollectorState& state, std::time_t now) {
    std::vector<SiteTally> sites;
    sites.push_back(site("shop.example", {"cart", "catalogue", "search"}, 1234567, 1, now));
    sites.push_back(site("blog.example", {"posts"}, 54321, 4, now));
    sites.push_back(site(kHostileName, {"\"quoted\\\" \xff"}, 987, 2, now));
    add(state, server("*:80,10.0.0.1:443", std::move(sites), 1300000, now));
}

void addStates(CollectorState& state, std::time_t now) {
    const std::pair<WatchState, const char*> runs[] = {
        {WatchState::kLive, "5 processes attached"},
        {WatchState::kEnding, "the server has stopped; 2 processes remain"},
        {WatchState::kStale, "no process of it runs"},
        {WatchState::kHeld, "held by collector 4711"},
        {WatchState::kUnreadable, "its segment 65538 is smaller than 16 records need"},
    };
    int port = 8080;
    for (const auto& [runState, why] : runs) {
        std::vector<SiteTally> sites;
        sites.push_back(site("www.example", {"all"}, 40000, port, now));
        ServerTally tally = server("*:" + std::to_string(port++), std::move(sites), 50000, now);
        tally.runs.front().state = runState;
        tally.runs.front().why = why;
        add(state, std::move(tally));
    }
    ServerTally stopped = server("127.0.0.1:8090", {}, 50000, now);
    stopped.runs.clear();
    add(state, std::move(stopped));
}

}  // namespace

CollectorState fullState(int servers, std::time_t now) {
    CollectorState state;
    for (int i = 0; i < servers; ++i) {
        std::vector<SiteTally> sites;
        for (int s = 0; s < kMaxSites; ++s) {
            std::vector<std::string> labels;
            for (int c = 0; c < kMaxCategories; ++c) {
                labels.push_back("category-" + std::to_string(c) + "/of/the/site");
            }
            sites.push_back(site("www." + std::to_string(s) + ".shop.example.com", labels,
                                 1234567U * static_cast<unsigned>(s + 1), s * 3 + i, now));
        }
        add(state, server("10.0.0." + std::to_string(i) + ":80", std::move(sites), 99999999, now));
    }
    state.health.started = now - 90000;
    state.health.interval = 1;
    state.health.rounds = 100;
    state.health.lastRound = now;
    state.health.roundSeconds = 1.25;
    state.health.lockSeconds = 0.1;
    return state;
}

CollectorState inventedState(const std::string& scenario, std::time_t now) {
    CollectorState state = fullState(scenario == "many" ? 4 : 0, now);
    if (scenario == "shop") {
        addShop(state, now);
    } else if (scenario == "states") {
        addStates(state, now);
    } else if (scenario != "empty" && scenario != "many") {
        throw std::invalid_argument("no scenario " + scenario);
    }
    return state;
}

}  // namespace tolvane::test
