// The last minutes for programs, the page among them.
#pragma once

#include <ctime>
#include <optional>
#include <string>

#include "collector/state.h"

namespace tolvane::agent {

// Of one server only when its name is given. The steps that are complete, the
// oldest first; "end" is when the last of them ended. Rows without any count
// are left out.
std::string historyJson(const CollectorState& state, std::time_t now,
                        const std::optional<std::string>& server = {});

}  // namespace tolvane::agent
