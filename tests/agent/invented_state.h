// What a collector might know, without any server.
#pragma once

#include <ctime>
#include <string>

#include "collector/state.h"

namespace tolvane::test {

// "empty", "shop" (one server, three sites, one of them with a hostile name),
// "states" (a server in each state), "full" and "many" (one server and four servers
// with all sites and categories that there can be).
agent::CollectorState inventedState(const std::string& scenario, std::time_t now);

// Servers with all that can be configured, and counts everywhere.
agent::CollectorState fullState(int servers, std::time_t now);

inline constexpr char kHostileName[] = "<img src=x onerror=\"document.title='broken'\">";

}  // namespace tolvane::test
