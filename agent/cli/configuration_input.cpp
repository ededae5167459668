#include "cli/configuration_input.h"

#include "cli/terminal.h"
#include "os/error.h"

namespace tolvane::agent {

ConfigModel modelIn(const std::string& path, WithoutSites withoutSites) {
    LoadedConfig loaded = loadConfig(path, withoutSites);
    if (loaded.complaints.empty()) return std::move(loaded.model);
    for (const std::string& complaint : loaded.complaints) printError(complaint);
    fail(ErrorKind::kInvalidInput, "{} is not valid; nothing was changed", path);
}

}  // namespace tolvane::agent
