#include "cli/configuration_input.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/terminal.h"
#include "os/error.h"

namespace tolvane::agent {

namespace {

std::string readStandardInput() {
    std::string text;
    char buffer[8192];
    for (;;) {
        ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            fail(ErrorKind::kInvalidInput, "standard input: {}", std::strerror(errno));
        }
        if (got == 0) return text;
        text.append(buffer, static_cast<std::size_t>(got));
        if (text.size() > kMaxTextFile) {
            fail(ErrorKind::kInvalidInput, "standard input: {}", std::strerror(EFBIG));
        }
    }
}

}  // namespace

ConfigModel modelIn(const std::string& path, WithoutSites withoutSites) {
    bool piped = path == "-";
    std::string name = piped ? "<stdin>" : path;
    LoadedConfig loaded = piped ? checkedConfig(readStandardInput(), name, withoutSites)
                                : loadConfig(path, withoutSites);
    if (loaded.complaints.empty()) return std::move(loaded.model);
    for (const std::string& complaint : loaded.complaints) printError(complaint);
    fail(ErrorKind::kInvalidInput, "{} is not valid; nothing was changed", name);
}

}  // namespace tolvane::agent
