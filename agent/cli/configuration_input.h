// The configuration file of a command.
#pragma once

#include <string>

#include "configuration/config_load.h"

namespace tolvane::agent {

// Prints each fault of the file and throws Error if there is one. "-" is standard input.
ConfigModel modelIn(const std::string& path, WithoutSites withoutSites);

}  // namespace tolvane::agent
