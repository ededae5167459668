#include "apache/server_root.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "os/agent_directories.h"
#include "os/error.h"
#include "os/process.h"
#include "os/text.h"
#include "tolvane/paths.h"

namespace tolvane::agent {

namespace {

constexpr std::string_view kMark = "# Written by tolvane for ";

std::string endpointText(const Endpoint& endpoint) {
    return endpoint.port ? fmt::format("{}:{}", endpoint.address, *endpoint.port)
                         : endpoint.address;
}

void refuseForeign(const std::string& file) {
    auto present = readFile(file);
    if (!present && errno == ENOENT) return;
    if (present && present->compare(0, kMark.size(), kMark) == 0) return;
    fail(ErrorKind::kInvalidInput,
         "{} was not written by tolvane; choose another directory with --root", file);
}

// Two servers cannot use the same root at the same time: the start of the second
// would remove the segment of the first.
void refuseUsed(const std::string& root, const std::string& pidFile) {
    std::string link = root + "/" + kApachePidFile;
    std::error_code error;
    auto status = std::filesystem::symlink_status(link, error);
    if (!std::filesystem::exists(status)) return;
    if (!std::filesystem::is_symlink(status)) {
        fail(ErrorKind::kInvalidInput,
             "{} was not created by tolvane; choose another directory with --root", link);
    }
    if (std::filesystem::read_symlink(link, error) == pidFile) return;
    pid_t process = parseInt32(trim(readFile(link).value_or(""))).value_or(0);
    if (!processExists(process) || !hasShimLoaded(process)) return;
    fail(ErrorKind::kInvalidInput,
         "{} belongs to the running process {}; choose another directory with --root", root,
         process);
}

// A path as a file name. Different paths have different names.
std::string asFileName(std::string_view path) {
    std::string name;
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    for (char c : path) {
        auto byte = static_cast<unsigned char>(c);
        bool special = byte <= 0x20 || byte == 0x7F || c == '-' || c == '+' || c == '@';
        if (special) {
            name += fmt::format("+{:02X}", byte);
        } else {
            name += c == '/' ? '-' : c;
        }
    }
    return name;
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

std::string renderHttpdConf(const MeasuredConfig& config, const std::string& source) {
    std::string text =
        fmt::format("{}{}; it is rewritten at every start.\n", kMark, printable(source));
    for (const Endpoint& endpoint : config.listen) {
        text += fmt::format("Listen {}\n", endpointText(endpoint));
    }
    text += fmt::format("MaxClients {}\n", config.processLimit);
    for (const Endpoint& endpoint : config.sslHosts) {
        text +=
            fmt::format("<VirtualHost {}>\nSSLEngine on\n</VirtualHost>\n", endpointText(endpoint));
    }
    return text;
}

bool ownRootSuits(const ServerFacts& facts, const MeasuredConfig& config) {
    std::string root = withoutTrailingSlash(facts.serverRoot);
    if (config.needsTranslation || !facts.mainFile.files.empty()) return false;
    if (facts.mainFile.path != root + "/" + kApacheConfigurationFile ||
        facts.pidFile != root + "/" + kApachePidFile) {
        return false;
    }
    auto module = readFile(root + "/" + kApacheModuleFile);
    return module ? trim(*module) == config.module : config.module == "prefork";
}

bool isPreparedRoot(const std::string& root) {
    auto text = readFile(root + "/" + kApacheConfigurationFile);
    return text && text->compare(0, kMark.size(), kMark) == 0;
}

std::string defaultRoot(const ServerFacts& facts) {
    return std::string(kPreparedRoots) + asFileName(facts.mainFile.path) + "@" +
           asFileName(facts.pidFile);
}

void writeServerRoot(const std::string& root, const ServerFacts& facts,
                     const MeasuredConfig& config) {
    std::string file = root + "/" + kApacheConfigurationFile;
    refuseForeign(file);
    refuseUsed(root, facts.pidFile);
    makeDirectories(root + "/conf", 0755);
    makeDirectories(root + "/logs", 0755);
    replaceFile(file, renderHttpdConf(config, facts.mainFile.path));
    replaceFile(root + "/" + kApacheModuleFile, config.module + "\n");
    replaceLink(root + "/" + kApachePidFile, facts.pidFile);
}

}  // namespace tolvane::agent
