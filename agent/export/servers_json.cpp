#include "export/servers_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "export/counters_json.h"

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

Json runToJson(const RunStatus& run) {
    return {{"state", runStateName(run.state)},
            {"reason", run.reason},
            {"segment", run.shmid},
            {"handoff_process", run.pid},
            {"process", run.parentPid > 0 ? Json(run.parentPid) : Json(nullptr)},
            {"started", orNull(run.started)},
            {"records", run.records},
            {"configuration_version", run.version > 0 ? Json(run.version) : Json(nullptr)},
            {"configuration_pending_seconds", run.pending},
            {"published", run.published},
            {"processes_attached", run.processes}};
}

Json categoryToJson(const CategoryTally& category) {
    Json json = {{"label", category.label}, {"configured", category.configured}};
    addCounters(json, category.counts);
    json["response_seconds"] = category.counts.responseTimeSum;
    json["response_count"] = category.responses;
    return json;
}

Json siteToJson(const SiteTally& site) {
    Json json = {{"name", site.name}, {"configured", site.configured}};
    addCounters(json, site.counts);
    json["categories"] = Json::array();
    for (const CategoryTally& category : site.categories) {
        json["categories"].push_back(categoryToJson(category));
    }
    return json;
}

Json serverToJson(const ServerTally& server) {
    bool up = std::any_of(server.runs.begin(), server.runs.end(),
                          [](const RunStatus& run) { return run.state == RunState::kLive; });
    Json json = {{"name", server.name},
                 {"type", server.type},
                 {"up", up},
                 {"collections", server.collections},
                 {"last_collection", orNull(server.lastCollection)},
                 {"busy_records", server.busyRecords},
                 {"runs", Json::array()}};
    for (const RunStatus& run : server.runs) json["runs"].push_back(runToJson(run));
    json["total"] = Json::object();
    addCounters(json["total"], server.total);
    json["sites"] = Json::array();
    for (const SiteTally& site : server.sites) json["sites"].push_back(siteToJson(site));
    return json;
}

}  // namespace

std::string serversJson(const CollectorState& state, const std::string& version, std::time_t now,
                        const std::optional<std::string>& server) {
    Json json = {{"version", version}, {"time", now}, {"collector", healthToJson(state.health)}};
    json["servers"] = Json::array();
    for (const auto& [key, tally] : state.servers) {
        if (!server || *server == tally.name) json["servers"].push_back(serverToJson(tally));
    }
    // The path of the configuration file may contain any byte.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tolvane::agent
