#include <fmt/format.h>

#include "apache/command.h"
#include "cli/commands.h"
#include "cli/exit_code.h"
#include "cli/prepare_root.h"
#include "cli/terminal.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

std::string installedApache() {
    for (const char* name : {"apache2", "httpd", "/usr/sbin/apache2", "/usr/sbin/httpd",
                             "/usr/local/apache2/bin/httpd"}) {
        if (auto path = findInPath(name)) return *path;
    }
    fail(ErrorKind::kInvalidInput,
         "no apache2 or httpd found; pass it: tolvane prepare -- /path/to/httpd");
}

std::string absolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    return realPath(".").value_or(".") + "/" + path;
}

}  // namespace

int prepareCommand(const PrepareOptions& options) {
    std::vector<std::string> words = options.command;
    if (words.empty()) words.push_back(installedApache());
    if (!options.serverDirectory.empty())
        words.insert(words.end(), {"-d", options.serverDirectory});
    if (!options.serverFile.empty()) words.insert(words.end(), {"-f", options.serverFile});
    for (const std::string& define : options.defines) words.insert(words.end(), {"-D", define});
    ServerCommand command = inspectCommand(words);
    if (command.kind != ServerKind::kApache) {
        fail(ErrorKind::kInvalidInput,
             "{} does not have the name of an Apache; only an Apache can be queried", command.path);
    }
    MeasuredRoot root = prepareRootWithNotes(command, absolutePath(options.root), true);
    writeOut(fmt::format(
        "WEB_SERVER=apache\nWEB_SERVER_ROOT={}\nSSL_FACTOR={}\n# module {}, pid file {}\n",
        root.directory, sslFactorFor(root), root.module, root.facts.pidFile));
    return kExitOk;
}

}  // namespace tolvane::agent
