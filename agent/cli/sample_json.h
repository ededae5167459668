// The counts of a server as the JSON object that `show` and `top` write.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "counts/counts.h"
#include "counts/report.h"

namespace tolvane::agent {

// The rates of the report are over `seconds`.
nlohmann::ordered_json sampleToJson(const Server& server, const Sample& sample,
                                    const Report& report, double seconds,
                                    const std::vector<std::string>& notes);

}  // namespace tolvane::agent
