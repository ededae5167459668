#include "agent/invented_state.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>
#include <vector>

namespace tolvane::test {

using namespace tolvane::agent;

namespace {

// Traffic that rises and falls, with an error now and then.
History invent(std::uint64_t requests, int seed, std::time_t now) {
    History history;
    for (int step = kHistoryPoints; requests > 0 && step > 0; --step) {
        double wave = 1 + 0.4 * std::sin((step + seed * 7) / 9.0) + 0.1 * std::sin(step * 22);
        HistoryPoint point;
        point.requests = static_cast<std::uint32_t>(static_cast<double>(requests) / 5000 * wave);
        if ((step + seed) % 23 < 2) point.errors = std::min(point.requests, 5U);
        point.responses = point.requests - point.errors;
        point.responseSeconds = static_cast<float>(point.responses * 0.008 * (2 - wave * 0.6));
        history.add(now - step * kHistoryStep, point);
    }
    return history;
}

TrafficCounts traffic(std::uint64_t n) {
    std::uint64_t errors = n / 100;
    std::uint64_t client = n / 125;
    return {n / 3, n, n * 5120, n * 410, errors, n / 1000, n / 20, client, errors - client};
}

SiteTally site(const std::string& name, const std::vector<std::string>& labels, std::uint64_t n,
               int seed, std::time_t now) {
    SiteTally tally{name, traffic(n), {}, invent(n, seed, now), true};
    for (const std::string& label : labels) {
        n = n * 2 / 3;
        std::uint64_t responses = n - n / 100 - n / 1000;
        CategoryCounts counts{n, n * 5120, n / 100, n / 1000,
                              static_cast<double>(responses) * 0.016};
        tally.categories.push_back({label, counts, responses, invent(n, ++seed, now), true});
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
    tally.history = invent(requests, 3, now);
    tally.runs = {
        {RunState::kLive, "12 processes attached", 98305, 811, 812, now - 90000, 16, 3, 12, true}};
    tally.collections = 100;
    tally.lastCollection = now;
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
    sites.push_back(site(kHostileName, {"\"quoted\\\" ?"}, 987, 2, now));
    add(state, server("*:80,10.0.0.1:443", std::move(sites), 1300000, now));
}

void addStates(CollectorState& state, std::time_t now) {
    constexpr const char* kUnpublished = "3 processes attached, nothing published yet";
    const std::pair<RunState, const char*> runs[] = {
        {RunState::kLive, "5 processes attached"},
        {RunState::kEnding, "the server has stopped; 2 processes remain"},
        {RunState::kStale, "no process of it runs"},
        {RunState::kHeld, "held by collector 4711"},
        {RunState::kUnreadable, "its segment 65538 is smaller than 16 records need"},
        {RunState::kLive, kUnpublished},
    };
    int port = 8080;
    for (const auto& [runState, reason] : runs) {
        std::vector<SiteTally> sites;
        sites.push_back(site("www.example", {"all"}, 40000, port, now));
        ServerTally tally = server("*:" + std::to_string(port++), std::move(sites), 50000, now);
        tally.runs.front().state = runState;
        tally.runs.front().reason = reason;
        tally.runs.front().published = reason != kUnpublished;
        add(state, std::move(tally));
    }
    ServerTally stopped = server("127.0.0.1:8090", {}, 50000, now);
    stopped.runs.clear();
    add(state, std::move(stopped));
}

}  // namespace

CollectorState fullState(int servers, std::time_t now) {
    CollectorState state;
    std::vector<std::string> labels;
    for (int c = 0; c < kMaxCategories; ++c) {
        labels.push_back("category-" + std::to_string(c) + "/of/the/site");
    }
    for (int i = 0; i < servers; ++i) {
        std::vector<SiteTally> sites;
        for (int s = 0; s < kMaxSites; ++s) {
            sites.push_back(site("www." + std::to_string(s) + ".shop.example.com", labels,
                                 1234567U * static_cast<unsigned>(s + 1), s * 3 + i, now));
        }
        add(state, server("10.0.0." + std::to_string(i) + ":80", std::move(sites), 99999999, now));
    }
    state.health.started = now - 90000;
    state.health.interval = 1;
    state.health.rounds = 100;
    state.health.lastRound = now;
    return state;
}

CollectorState inventedState(const std::string& scenario, std::time_t now) {
    const std::map<std::string, int> full = {{"many", 4}, {"full", 1}};
    auto servers = full.find(scenario);
    CollectorState state = fullState(servers == full.end() ? 0 : servers->second, now);
    if (scenario == "shop") addShop(state, now);
    if (scenario == "states") addStates(state, now);
    return state;
}

}  // namespace tolvane::test
