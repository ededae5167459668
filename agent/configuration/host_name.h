// Names of sites in the form of the Host header.
#pragma once

#include <string_view>

namespace tolvane::agent {

// Throws Error if no request can contain such a name, or if it is too long.
void checkHostName(std::string_view name);

}  // namespace tolvane::agent
