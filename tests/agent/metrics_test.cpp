// The text for Prometheus: exact, valid, and every series once.
#include "export/metrics.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <limits>
#include <set>
#include <sstream>

#include "agent/invented_state.h"
#include "os/text.h"

namespace tolvane::agent {
namespace {

constexpr std::time_t kNow = 1700000000;

std::string textOf(const CollectorState& state) {
    return metricsText(state, {1.5, 4096, 7, 1.6e9}, "1.2.3");
}

// A server that counts, with one site and one category of those names.
CollectorState named(const std::string& server, const std::string& site, const std::string& label) {
    CollectorState state = tolvane::test::inventedState("shop", kNow);
    auto node = state.servers.extract(state.servers.begin());
    node.key() = node.mapped().name = server;
    node.mapped().sites.resize(1);
    node.mapped().sites[0].name = site;
    node.mapped().sites[0].categories.resize(1);
    node.mapped().sites[0].categories[0].label = label;
    state.servers.insert(std::move(node));
    return state;
}

TEST(Metrics, ShowTheCounts) {
    CollectorState state = named("*:80", "shop.example", "cart");
    ServerTally& server = state.servers.begin()->second;
    server.total[&CounterBlock::requests] = std::numeric_limits<std::uint64_t>::max();
    server.runs.push_back({RunState::kStale, "", 1, 2, 3, kNow, 1, 1, 0});
    CategoryTally& category = server.sites[0].categories[0];
    category.counts = {10, 2000, 3, 1, 0.1};
    category.responses = 6;
    std::string text = textOf(state);
    for (const char* line : {
             "# TYPE tolvane_requests_total counter",
             "tolvane_requests_total{server=\"*:80\"} 18446744073709551615",
             "tolvane_site_received_bytes_total{server=\"*:80\",site=\"shop.example\"} 506172470",
             "# TYPE tolvane_category_response_seconds summary",
             // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): one line of the page in two texts
             "tolvane_category_response_seconds_sum{server=\"*:80\",site=\"shop.example\","
             "category=\"cart\"} 0.1",
             "tolvane_category_response_seconds_count{server=\"*:80\",site=\"shop.example\","
             "category=\"cart\"} 6",
             "tolvane_server_up{server=\"*:80\"} 1",
             "tolvane_server_info{server=\"*:80\",type=\"APACHE\"} 1",
             "tolvane_server_start_time_seconds{server=\"*:80\"} 1700000000",
             "tolvane_collector_servers{state=\"live\"} 1",
             "tolvane_collector_servers{state=\"stale\"} 1",
             "tolvane_collector_servers{state=\"unreadable\"} 0",
             "tolvane_collector_round_seconds_count 100",
             "tolvane_build_info{version=\"1.2.3\"} 1",
             "process_cpu_seconds_total 1.5",
         }) {
        EXPECT_NE(text.find(std::string(line) + "\n"), std::string::npos) << line;
    }
    EXPECT_EQ(text.find("configuration_valid"), std::string::npos)
        << "without a configuration file";
    state.health.configFile = "sites.toml";
    server.sites[0].categories[0].configured = false;
    text = textOf(state);
    EXPECT_NE(text.find("\ntolvane_collector_configuration_valid 1\n"), std::string::npos);
    EXPECT_EQ(text.find("tolvane_category"), std::string::npos) << "none is configured";
}

TEST(Metrics, NamesAreEscapedAndValid) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\"b\\c", "a\\\"b\\\\c"},
        {"caf\xc3\xa9 ?", "caf\xc3\xa9 ?"},
        {"}{} 1", "}{} 1"},
        {"", ""},
    };
    for (const auto& [name, shown] : cases) {
        std::string start = "\ntolvane_category_requests_total{server=\"" + shown + "\"";
        EXPECT_NE(textOf(named(name, name, name)).find(start), std::string::npos) << name;
    }
}

TEST(Metrics, EverySeriesStandsOnceInItsFamily) {
    std::set<std::string> known;
    std::string family;
    std::istringstream lines(textOf(tolvane::test::inventedState("states", kNow)));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            family = splitWords(line)[2];
        } else if (line[0] != '#') {
            EXPECT_TRUE(line.starts_with(family)) << line << " in " << family;
        }
        std::string key = line.substr(0, line.rfind(' '));
        EXPECT_TRUE(line[0] == '#' || known.insert(key).second) << line;
    }
    EXPECT_GT(known.size(), 100U);
}

// docs/monitoring.md promises a fleet's Prometheus this bound.
TEST(Metrics, AFullServerKeepsWithinTheBudgetOfSeries) {
    auto series = [](int servers) {
        std::istringstream lines(textOf(tolvane::test::fullState(servers, kNow)));
        int count = 0;
        for (std::string line; std::getline(lines, line);) count += line[0] != '#';
        return count;
    };
    EXPECT_LE(series(1), 1030);
    EXPECT_LE(series(2) - series(1), 1010);
}

}  // namespace
}  // namespace tolvane::agent
