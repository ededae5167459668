// Names of sites, as clients send them in "Host:".
#pragma once

#include <string_view>

namespace tolvane::agent {

// Throws Error when no request can carry such a name, or it does not fit.
void checkHostName(std::string_view name);

}  // namespace tolvane::agent
