#include "export/report_json.h"

#include <nlohmann/json.hpp>

#include "export/counters_json.h"

namespace tolvane::agent {

using Json = nlohmann::ordered_json;

namespace {

Json orNull(const std::optional<double>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json rowToJson(const ReportRow& row) {
    Json json = Json::object();
    if (row.level == ReportRow::Level::kCategory) {
        for (const auto& counter : kCategoryCounters) {
            json[counter.name] = *row.counts.named(counter.name);
        }
    } else {
        addCounters(json, row.counts);
    }
    json["requests_per_second"] = row.requestsPerSecond;
    json["sent_bytes_per_second"] = row.bytesSentPerSecond;
    json["error_share"] = orNull(row.errorShare);
    json["mean_response_seconds"] = orNull(row.meanResponse);
    return json;
}

}  // namespace

Json serverToJson(const Server& server) {
    Json json = {{"handoff_file", server.handoff.path},
                 {"listen", server.handoff.listen},
                 {"type", server.handoff.serverType},
                 {"segment", server.handoff.shmid},
                 {"records", server.handoff.structures},
                 {"state", runStateName(server.state)},
                 {"reason", server.reason}};
    json["process"] = server.process > 0 ? Json(server.process) : Json(nullptr);
    json["processes_attached"] = server.processes;
    json["configuration_version"] =
        server.ownsSegment && server.version > 0 ? Json(server.version) : Json(nullptr);
    json["configuration_pending_seconds"] = server.pending;
    json["published"] = server.published;
    return json;
}

Json reportToJson(const Report& report) {
    Json json = {{"total", Json::object()}, {"sites", Json::array()}};
    for (const ReportRow& row : report.rows) {
        if (row.level == ReportRow::Level::kTotal) {
            json["total"] = rowToJson(row);
            continue;
        }
        Json entry = {{row.level == ReportRow::Level::kSite ? "name" : "label", row.name}};
        entry.update(rowToJson(row));
        if (row.level == ReportRow::Level::kSite) {
            entry["categories"] = Json::array();
            json["sites"].push_back(std::move(entry));
        } else {
            json["sites"].back()["categories"].push_back(std::move(entry));
        }
    }
    return json;
}

}  // namespace tolvane::agent
