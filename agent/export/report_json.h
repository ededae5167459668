// The report as JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "counts/report.h"
#include "servers/server.h"

namespace tolvane::agent {

nlohmann::ordered_json serverToJson(const Server& server);
nlohmann::ordered_json reportToJson(const Report& report);

}  // namespace tolvane::agent
