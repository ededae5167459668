// The totals as JSON, for the page and for programs.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "collector/state.h"

namespace tolvane::agent {

// Of all servers, or of one. Sites and categories that are no longer configured
// are included and marked.
std::string serversJson(const CollectorState& state, const std::string& version, std::time_t now,
                        const std::optional<std::string>& server = {});

}  // namespace tolvane::agent
