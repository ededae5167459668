// The response to each path.
#include "export/pages.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "agent/invented_state.h"
#include "os/process_facts.h"

namespace tolvane::agent {
namespace {

constexpr std::time_t kAskedAt = 1700000003;

HttpResponse answer(const CollectorState& state, const std::string& path,
                    const std::map<std::string, std::string>& query = {}) {
    return Pages([&](const auto& reader) { reader(state); }, "1.2.3")
        .answer({"GET", path, query}, kAskedAt);
}

nlohmann::json jsonOf(const CollectorState& state, const std::string& path,
                      const std::map<std::string, std::string>& query = {}) {
    HttpResponse response = answer(state, path, query);
    EXPECT_EQ(response.contentType, "application/json");
    return nlohmann::json::parse(response.body);
}

TEST(Pages, EachPathHasItsKind) {
    CollectorState state = tolvane::test::inventedState("shop", kAskedAt);
    struct Case {
        const char* path;
        int status;
        const char* type;
        const char* part;
    };
    for (const Case& c : {
             Case{"/", 200, "text/html; charset=utf-8", "</html>"},
             Case{"/page.js", 200, "text/javascript; charset=utf-8", "import "},
             Case{"/metrics", 200, "text/plain; version=0.0.4; charset=utf-8", "# HELP "},
             Case{"/health", 200, "text/plain; charset=utf-8", "ok\n"},
             Case{"/metrics/", 404, "text/plain; charset=utf-8", "/metrics"},
             Case{"/../page.js", 404, "text/plain; charset=utf-8", ""},
         }) {
        HttpResponse response = answer(state, c.path);
        EXPECT_EQ(response.status, c.status) << c.path;
        EXPECT_EQ(response.contentType, c.type) << c.path;
        EXPECT_NE(response.body.find(c.part), std::string::npos) << c.path;
    }
}

TEST(Pages, HealthNamesTheProblem) {
    struct Case {
        std::time_t started, lastRound;
        double interval;
        bool storeWorks;
        const char* complaint;
    };
    for (const Case& c : {
             Case{kAskedAt - 5, 0, 5, true, ""},
             Case{kAskedAt - 999, kAskedAt - 30, 1, true, ""},
             Case{kAskedAt - 999, kAskedAt - 31, 1, true, "no round for 31 seconds"},
             Case{kAskedAt - 999, kAskedAt - 300, 60, true, ""},
             Case{kAskedAt - 31, 0, 1, true, "no round for 31 seconds"},
             Case{kAskedAt - 999, kAskedAt, 5, false, "the totals cannot be saved"},
         }) {
        CollectorState state;
        state.health.started = c.started;
        state.health.lastRound = c.lastRound;
        state.health.interval = c.interval;
        state.health.storeWorks = c.storeWorks;
        EXPECT_EQ(complaintOf(state.health, kAskedAt), c.complaint);
        EXPECT_EQ(answer(state, "/health").status, *c.complaint == '\0' ? 200 : 503);
    }
}

TEST(Pages, ServersAsJson) {
    CollectorState state = tolvane::test::inventedState("shop", kAskedAt);
    state.servers.begin()->second.sites[1].configured = false;
    nlohmann::json json = jsonOf(state, "/api/servers");
    EXPECT_EQ(json["time"], kAskedAt);
    EXPECT_EQ(json["collector"]["rounds"], 100);
    const nlohmann::json& server = json["servers"][0];
    EXPECT_EQ(server["name"], "*:80,10.0.0.1:443");
    EXPECT_EQ(server["runs"][0]["process"], 812);
    EXPECT_EQ(server["total"]["requests"], 1300000);
    const nlohmann::json& sites = server["sites"];
    EXPECT_EQ(sites[0]["server_errors"], 1234567 / 100 - 1234567 / 125);
    EXPECT_EQ(sites[0]["categories"][0]["label"], "cart");
    EXPECT_EQ(sites[0]["categories"][0]["response_count"], 823044 - 8230 - 823);
    EXPECT_EQ(sites[1]["configured"], false);
    EXPECT_EQ(sites[2]["name"], tolvane::test::kHostileName);
    EXPECT_EQ(sites[2]["categories"][0]["label"], "\"quoted\\\" ?");

    CollectorState many = tolvane::test::inventedState("states", kAskedAt);
    EXPECT_EQ(jsonOf(many, "/api/servers")["servers"].size(), 7U);
    json = jsonOf(many, "/api/servers", {{"server", "*:8083"}});
    ASSERT_EQ(json["servers"].size(), 1U);
    EXPECT_EQ(json["servers"][0]["runs"][0]["reason"], "held by collector 4711");
    EXPECT_EQ(json["servers"][0]["up"], false);
}

TEST(Pages, HistoryHasWholeStepsAndNoEmptyRows) {
    CollectorState state = tolvane::test::inventedState("states", kAskedAt);
    SiteTally& site = state.servers.at("*:8080").sites[0];
    site.categories.resize(2);
    site.categories[1].label = "idle";
    site.history = {};
    site.history.add(kAskedAt - 10, {6, 1, 0.5F, 4});
    site.history.add(kAskedAt, {99, 0, 9, 99});
    state.servers.at("*:8081").history = {};
    state.servers.at("*:8081").sites.clear();
    nlohmann::json json = jsonOf(state, "/api/history");
    EXPECT_EQ(json["step"], kHistoryStep);
    EXPECT_EQ(json["end"], 1700000000);
    ASSERT_EQ(json["servers"].size(), 6U);
    EXPECT_EQ(json["servers"][1]["name"], "*:8082");
    const nlohmann::json& found = json["servers"][0]["sites"][0];
    EXPECT_EQ(found["requests"].size(), static_cast<std::size_t>(kHistoryPoints - 1));
    EXPECT_EQ(found["requests"].back(), 6) << "the step that is not over is left out";
    EXPECT_EQ(found["errors"].back(), 1);
    EXPECT_EQ(found["response_seconds"].back(), 0.5);
    EXPECT_EQ(found["response_count"].back(), 4);
    EXPECT_EQ(found["categories"].size(), 1U);
    EXPECT_EQ(jsonOf(state, "/api/history", {{"server", "*:8080"}})["servers"].size(), 1U);
}

TEST(ProcessFacts, AreOfThisProcess) {
    ProcessFacts facts = readProcessFacts();
    EXPECT_GT(facts.residentBytes, 1U << 20);
    EXPECT_LT(facts.residentBytes, 1U << 30);
    EXPECT_GE(facts.openDescriptors, 3U);
    EXPECT_LT(facts.openDescriptors, 100U);
    auto age = static_cast<double>(std::time(nullptr)) - facts.started;
    EXPECT_TRUE(age > -2 && age < 60) << age;
    EXPECT_EQ(readProcessFacts().started, facts.started);
}

}  // namespace
}  // namespace tolvane::agent
