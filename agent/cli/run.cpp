#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "apache/command.h"
#include "apache/server_root.h"
#include "cli/commands.h"
#include "cli/configuration_input.h"
#include "cli/prepare_root.h"
#include "cli/start_configuration.h"
#include "configuration/config_block.h"
#include "os/agent_directories.h"
#include "os/error.h"
#include "os/text.h"
#include "servers/library.h"

namespace tolvane::agent {

namespace {

struct StartPlan {
    ServerCommand command;
    std::string type;
    std::string root;
    std::string description;
    bool hasSslHosts = false;
    WordSize wordSize = WordSize::kUnknown;
    std::map<std::string, std::string> environment;
};

std::string environmentOr(const char* name, const std::string& otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

// The option's value, or the environment's within the same limits.
std::string settledNumber(const std::optional<int>& option, const char* name,
                          const std::string& otherwise, int high) {
    if (option) return fmt::format("{}", *option);
    std::string value = environmentOr(name, otherwise);
    int number = parseInt32(value).value_or(0);
    if (value != otherwise && (number < 1 || number > high)) {
        fail(ErrorKind::kInvalidInput, "{}={} in the environment is not a number from 1 to {}",
             name, printable(value), high);
    }
    return value;
}

std::string settledCounting(const std::optional<std::string>& option) {
    std::string value = option.value_or(environmentOr("TOLVANE_COUNTING", "messages"));
    if (value != "messages" && value != "calls") {
        fail(ErrorKind::kInvalidInput,
             "TOLVANE_COUNTING={} in the environment is neither messages nor calls",
             printable(value));
    }
    return value;
}

std::string typeOf(const ServerCommand& command, const std::string& wanted) {
    if (!wanted.empty()) return wanted;
    if (command.kind == ServerKind::kNetscape) return "netscape";
    std::string type = lower(environmentOr("WEB_SERVER", "apache"));
    if (type != "apache" && type != "netscape") {
        fail(ErrorKind::kInvalidInput,
             "WEB_SERVER={} in the environment is neither apache nor netscape", printable(type));
    }
    return type;
}

// With systemd, the distributions' control scripts call systemctl, which does not
// pass the environment on.
void refuseHandover(const ServerCommand& command) {
    struct stat status {};
    if (command.executable.kind != Executable::Kind::kScript ||
        ::stat("/run/systemd/system", &status) != 0 ||
        std::getenv("APACHE_STARTED_BY_SYSTEMD") != nullptr) {
        return;
    }
    bool starts = command.words.size() == 2 && command.words[1] == "start";
    auto script = readFile(command.path);
    if (!starts || !script || script->find("systemctl start") == std::string::npos) return;
    fail(ErrorKind::kInvalidInput,
         "{} passes the start to systemd, which would start the server without measurement; "
         "use a drop-in for the service (see docs/operations.md), or set "
         "APACHE_STARTED_BY_SYSTEMD=1, with which it starts the server itself",
         command.path);
}

WordSize wordSizeOf(const ServerCommand& command) {
    if (command.executable.kind == Executable::Kind::kElf) return command.executable.wordSize;
    WordSize found = WordSize::kUnknown;
    auto script = readFile(command.path);
    if (!script) return found;
    for (const std::string& server : serversNamedIn(*script)) {
        WordSize size = inspectExecutable(server).wordSize;
        if (found != WordSize::kUnknown && size != found) return WordSize::kUnknown;
        found = size;
    }
    return found;
}

std::string existingRoot(const std::string& root) {
    auto real = realPath(root);
    if (!real) fail(ErrorKind::kInvalidInput, "{}: {}", root, std::strerror(errno));
    return *real;
}

void checkRootFiles(const std::string& root, const std::string& type) {
    std::string file =
        root + "/" + (type == "netscape" ? kNetscapeConfigurationFile : kApacheConfigurationFile);
    if (::access(file.c_str(), R_OK) != 0) {
        fail(ErrorKind::kInvalidInput,
             "{}: {}; the library reads the listening addresses from this file", file,
             std::strerror(errno));
    }
}

void settleNumbers(StartPlan& plan, const RunOptions& options) {
    // -1: the shim chooses the number of records.
    plan.environment["NUM_SEMAPHORES"] =
        settledNumber(options.semaphores, "NUM_SEMAPHORES", "-1", kMaxSemaphores);
    plan.environment["REQUEST_INTERVAL"] =
        settledNumber(options.requestInterval, "REQUEST_INTERVAL", "5", kMaxRequestInterval);
}

void settleRoot(StartPlan& plan, const RunOptions& options) {
    std::string given = options.root.empty() ? environmentOr("WEB_SERVER_ROOT", "") : options.root;
    if (!given.empty()) given = existingRoot(given);
    // A prepared root is updated from the server's configuration at every start.
    bool refresh = isPreparedRoot(given) && plan.command.kind == ServerKind::kApache;
    if (!given.empty() && !refresh) {
        checkRootFiles(given, plan.type);
        plan.root = given;
        plan.description = "root " + given;
        return;
    }
    if (plan.type == "netscape") {
        fail(ErrorKind::kInvalidInput, "--root is missing: the directory with config/magnus.conf");
    }
    if (plan.command.kind != ServerKind::kApache) {
        fail(ErrorKind::kInvalidInput,
             "{} does not have the name of an Apache, so its configuration cannot be queried; pass "
             "--root, the directory with conf/httpd.conf and logs/httpd.pid",
             plan.command.path);
    }
    MeasuredRoot root = prepareRootWithNotes(plan.command, given, refresh);
    plan.root = root.directory;
    plan.description = fmt::format("module {}, {} {}", root.module,
                                   root.prepared ? "prepared root" : "root", root.directory);
    plan.environment.insert(root.facts.environment.begin(), root.facts.environment.end());
    plan.environment.emplace("SSL_FACTOR", environmentOr("SSL_FACTOR", sslFactorFor(root)));
    plan.hasSslHosts = root.hasSslHosts;
    plan.wordSize = root.facts.wordSize;
}

void settleVariables(StartPlan& plan, const RunOptions& options) {
    auto& variables = plan.environment;
    variables["WEB_SERVER"] = plan.type;
    variables["WEB_SERVER_ROOT"] = plan.root;
    variables.emplace("SSL_FACTOR", environmentOr("SSL_FACTOR", "start"));
    if (options.sslFactor) variables["SSL_FACTOR"] = *options.sslFactor;
    variables["TOLVANE_COUNTING"] = settledCounting(options.counting);
    if (plan.hasSslHosts && lower(variables["SSL_FACTOR"]) == "start") {
        fmt::print(stderr,
                   "tolvane: note: the server has SSL hosts, and SSL_FACTOR={} treats them as "
                   "plain; unset "
                   "it, or pass --ssl-factor startssl\n",
                   variables["SSL_FACTOR"]);
    }
}

// The word size of the program that is executed: of a script, its interpreter.
WordSize starterWordSize(const ServerCommand& command) {
    if (command.executable.kind == Executable::Kind::kScript) {
        return inspectExecutable(command.executable.interpreter).wordSize;
    }
    return command.executable.wordSize;
}

[[noreturn]] void execute(const StartPlan& plan) {
    for (const auto& [name, value] : plan.environment) ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    for (const std::string& word : plan.command.words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    ::execv(plan.command.path.c_str(), arguments.data());
    fail(ErrorKind::kFailed, "{}: {}", plan.command.path, std::strerror(errno));
}

}  // namespace

int runCommand(const RunOptions& options) {
    StartPlan plan;
    StartConfiguration configuration;
    if (!options.configFile.empty()) {
        ConfigModel model = modelIn(options.configFile, WithoutSites::kRefused);
        configuration = {buildConfigBlock(model), summaryOf(model)};
    }
    plan.command = inspectCommand(options.command);
    plan.type = typeOf(plan.command, options.type);
    refuseHandover(plan.command);
    Libraries libraries = options.library.empty() ? findLibraries() : givenLibrary(options.library);
    if (libraries.empty()) {
        fail(ErrorKind::kFailed,
             "no libtolvane.so is installed with this program; pass it with --library");
    }
    settleNumbers(plan, options);
    settleRoot(plan, options);
    settleVariables(plan, options);
    if (plan.wordSize == WordSize::kUnknown) plan.wordSize = wordSizeOf(plan.command);
    makeAgentDirectories();
    std::string preload = preloadValue(libraries, plan.wordSize, starterWordSize(plan.command));
    plan.environment["LD_PRELOAD"] = joinPreload(preload, environmentOr("LD_PRELOAD", ""));
    if (!options.quiet) {
        fmt::print(stderr, "tolvane: {} server, {}; library {}\n", plan.type, plan.description,
                   preload);
    }
    if (configuration.block) configureOnceStarted(configuration, plan.root, options.quiet);
    execute(plan);
}

}  // namespace tolvane::agent
