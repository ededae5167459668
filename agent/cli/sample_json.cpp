#include "cli/sample_json.h"

#include <ctime>
#include <nlohmann/json.hpp>

#include "export/report_json.h"

namespace tolvane::agent {

nlohmann::ordered_json sampleToJson(const Server& server, const Sample& sample,
                                    const Report& report, double seconds,
                                    const std::vector<std::string>& notes) {
    nlohmann::ordered_json json = serverToJson(server);
    json["time"] = std::time(nullptr);
    json["measured_since"] = sample.measuredSince;
    json["interval"] = sample.config.info->interval;
    json["rates_over_seconds"] = seconds;
    json["notes"] = notes;
    json.update(reportToJson(report));
    return json;
}

}  // namespace tolvane::agent
