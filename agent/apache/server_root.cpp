#include "apache/server_root.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "base/agent_directories.h"
#include "base/error.h"
#include "base/text.h"

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
    fail(kExitBadInput, "{} was not written by tolvane; choose another directory with --root",
         file);
}

void linkTo(const std::string& path, const std::string& target) {
    char present[PATH_MAX];
    ssize_t length = ::readlink(path.c_str(), present, sizeof present);
    if (length > 0 && target == std::string_view(present, static_cast<std::size_t>(length))) return;
    std::string temporary = path + ".new";
    ::unlink(temporary.c_str());
    if (::symlink(target.c_str(), temporary.c_str()) != 0 ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        fail(kExitFailed, "{}: cannot be created: {}", path, std::strerror(errno));
    }
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

std::string renderHttpdConf(const MeasuredConfig& config, const std::string& source) {
    std::string text =
        fmt::format("{}{}; it is written anew at every start.\n", kMark, printable(source));
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
    if (facts.mainFile.path != root + "/conf/httpd.conf" ||
        facts.pidFile != root + "/logs/httpd.pid") {
        return false;
    }
    auto module = readFile(root + "/logs/.tolvane_info");
    return module ? trim(*module) == config.module : config.module == "prefork";
}

bool isPreparedRoot(const std::string& root) {
    auto text = readFile(root + "/conf/httpd.conf");
    return text && text->compare(0, kMark.size(), kMark) == 0;
}

std::string defaultRoot(const ServerFacts& facts) {
    std::string name = facts.mainFile.path;
    while (!name.empty() && name.front() == '/') name.erase(0, 1);
    for (char& c : name) {
        if (c == '/' || static_cast<unsigned char>(c) <= 0x20) c = '-';
    }
    return std::string(kPreparedRoots) + name;
}

void writeServerRoot(const std::string& root, const ServerFacts& facts,
                     const MeasuredConfig& config) {
    std::string file = root + "/conf/httpd.conf";
    refuseForeign(file);
    makeDirectories(root + "/conf", 0755);
    makeDirectories(root + "/logs", 0755);
    replaceFile(file, renderHttpdConf(config, facts.mainFile.path));
    replaceFile(root + "/logs/.tolvane_info", config.module + "\n");
    linkTo(root + "/logs/httpd.pid", facts.pidFile);
}

}  // namespace tolvane::agent
