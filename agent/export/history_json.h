// The last 15 minutes as JSON, for the page and for programs.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "collector/state.h"

namespace tolvane::agent {

// Of all servers, or of one. The complete steps, the oldest first; "end" is the
// end of the last step. Rows without any count are left out.
std::string historyJson(const CollectorState& state, std::time_t now,
                        const std::optional<std::string>& server = {});

}  // namespace tolvane::agent
