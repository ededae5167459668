// Writing a damaged or missing handoff file of a running server anew.
#pragma once

#include "servers/server.h"

namespace tolvane::agent {

// Throws Error.
void repairHandoff(const Server& server);

}  // namespace tolvane::agent
