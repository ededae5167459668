#include "export/servers_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "export/clean_name.h"

namespace tolvane::agent {

namespace {

using Json = nlohmann::ordered_json;

Json orNull(std::time_t time) {
    return time > 0 ? Json(time) : Json(nullptr);
}

Json healthToJson(const CollectorHealth& health) {
    Json json = {{"started", health.started},
                 {"interval", health.interval},
                 {"rounds", health.rounds},
                 {"last_round", orNull(health.lastRound)},
                 {"round_seconds", health.roundSeconds},
                 {"record_lock_seconds", health.lockSeconds},
                 {"longest_record_lock_seconds", health.longestLockSeconds},
                 {"store_failures", health.storeFailures},
                 {"store_works", health.storeWorks},
                 {"config", nullptr}};
    if (!health.configFile.empty()) {
        json["config"] = {{"file", health.configFile},
                          {"valid", health.configValid},
                          {"loaded", orNull(health.configLoaded)},
                          {"written", health.configWritten},
                          {"failures", health.configFailures}};
    }
    return json;
}

Json runToJson(const RunState& run) {
    return {{"state", watchStateName(run.state)},
            {"why", cleanName(run.why)},
            {"segment", run.shmid},
            {"handoff_process", run.pid},
            {"process", run.parentPid > 0 ? Json(run.parentPid) : Json(nullptr)},
            {"started", orNull(run.started)},
            {"records", run.records},
            {"configuration_version", run.version > 0 ? Json(run.version) : Json(nullptr)},
            {"processes_attached", run.processes}};
}

void addCounts(Json& json, const TrafficCounts& counts) {
    json["requests"] = counts.requests;
    json["errors"] = counts.errors;
    json["dropped_requests"] = counts.dropped;
    json["bytes_sent"] = counts.bytesSent;
    json["connections"] = counts.connections;
    json["bytes_received"] = counts.bytesReceived;
    json["redirects"] = counts.redirects;
    json["client_errors"] = counts.clientErrors;
    json["server_errors"] = counts.serverErrors;
}

Json categoryToJson(const CategoryTally& category, std::string label) {
    return {{"label", std::move(label)},
            {"configured", category.configured},
            {"requests", category.counts.requests},
            {"errors", category.counts.errors},
            {"dropped_requests", category.counts.dropped},
            {"bytes_sent", category.counts.bytesSent},
            {"response_seconds", category.counts.responseTimeSum},
            {"answered", category.answered}};
}

Json siteToJson(const SiteTally& site, std::string name) {
    Json json = {{"name", std::move(name)}, {"configured", site.configured}};
    addCounts(json, site.counts);
    Json categories = Json::array();
    CleanNames labels;
    for (const CategoryTally& category : site.categories) {
        categories.push_back(categoryToJson(category, labels.add(category.label)));
    }
    json["categories"] = std::move(categories);
    return json;
}

Json serverToJson(const ServerTally& server, std::string name) {
    bool up = std::any_of(server.runs.begin(), server.runs.end(),
                          [](const RunState& run) { return run.state == WatchState::kLive; });
    Json json = {{"name", std::move(name)},
                 {"type", cleanName(server.type)},
                 {"up", up},
                 {"takings", server.takings},
                 {"last_taking", orNull(server.lastTaking)},
                 {"busy_records", server.busyRecords},
                 {"runs", Json::array()}};
    for (const RunState& run : server.runs) json["runs"].push_back(runToJson(run));
    json["total"] = Json::object();
    addCounts(json["total"], server.total);
    Json sites = Json::array();
    CleanNames names;
    for (const SiteTally& site : server.sites)
        sites.push_back(siteToJson(site, names.add(site.name)));
    json["sites"] = std::move(sites);
    return json;
}

}  // namespace

std::string serversJson(const CollectorState& state, const std::string& version, std::time_t now,
                        const std::optional<std::string>& server) {
    Json json = {{"version", version}, {"time", now}, {"collector", healthToJson(state.health)}};
    json["servers"] = Json::array();
    CleanNames names;
    for (const auto& [key, tally] : state.servers) {
        std::string name = names.add(tally.name);
        if (server && *server != name) continue;
        json["servers"].push_back(serverToJson(tally, std::move(name)));
    }
    // Names are clean, but a configuration file's path may hold any byte as well.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tolvane::agent
