// The totals for programs, the page among them.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "collector/state.h"

namespace tolvane::agent {

// Of one server only when its name is given. What is configured no longer is
// among the sites and categories too, and says so.
std::string serversJson(const CollectorState& state, const std::string& version, std::time_t now,
                        const std::optional<std::string>& server = {});

}  // namespace tolvane::agent
