#include "apache/probe.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>

#include "os/error.h"
#include "os/process.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 30s;

std::string unquoted(std::string_view text) {
    text = trim(text);
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        text = text.substr(1, text.size() - 2);
    }
    return std::string(text);
}

// "    (146) /etc/apache2/ports.conf". Each level of inclusion is indented by four
// blanks more than the main file's "  (*) ".
void readIncludeLine(std::string_view line, ServerFacts& facts) {
    std::size_t indent = line.find('(');
    std::size_t close = line.find(')', indent);
    if (close == std::string_view::npos || line.find_first_not_of(' ') != indent) return;
    IncludedFile file;
    file.path = std::string(trim(line.substr(close + 1)));
    std::string_view number = line.substr(indent + 1, close - indent - 1);
    if (number == "*") {
        facts.mainFile = std::move(file);
        return;
    }
    auto parsed = parseInt32(number);
    if (!parsed || *parsed < 0 || file.path.empty()) return;
    file.line = static_cast<std::size_t>(*parsed);
    IncludedFile* above = &facts.mainFile;
    for (std::size_t depth = indent / 2; depth > 2 && !above->files.empty(); --depth) {
        above = &above->files.back();
    }
    above->files.push_back(std::move(file));
}

std::vector<std::string> commandWith(const ServerCommand& command,
                                     std::initializer_list<const char*> arguments) {
    std::vector<std::string> words = {command.path};
    words.insert(words.end(), command.configurationArguments.begin(),
                 command.configurationArguments.end());
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

// Debian's binary expects variables that its control script reads from a file
// in the configuration directory.
std::map<std::string, std::string> startVariables(const std::string& directory) {
    std::map<std::string, std::string> variables;
    std::string file = directory + "/envvars";
    struct stat status {};
    if (std::getenv("APACHE_RUN_DIR") != nullptr || ::stat(file.c_str(), &status) != 0) {
        return variables;
    }
    ProcessAnswer answer =
        runAndListen({"/bin/sh", "-c", "set -a; . \"$0\" >/dev/null; exec env -0", file},
                     {{"APACHE_CONFDIR", directory}}, kPatience);
    std::string_view rest = answer.output;
    while (!rest.empty()) {
        std::size_t end = std::min(rest.find('\0'), rest.size());
        std::string entry(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        std::size_t equals = entry.find('=');
        if (equals == std::string::npos || equals == 0) continue;
        std::string name = entry.substr(0, equals);
        // Variables of the shell itself are not for the server.
        if (name == "_" || name == "PWD" || name == "OLDPWD" || name == "SHLVL") continue;
        const char* present = std::getenv(name.c_str());
        if (present == nullptr || entry.compare(equals + 1, std::string::npos, present) != 0) {
            variables[name] = entry.substr(equals + 1);
        }
    }
    return variables;
}

// The server's complaint without the lines that only warn.
std::string complaintOf(const ProcessAnswer& answer) {
    std::string complaint;
    for (std::string_view line :
         splitLines(answer.errors.empty() ? answer.output : answer.errors)) {
        if (trim(line).empty() || line.find("Could not reliably determine") != line.npos) continue;
        if (complaint.size() < 1000) complaint += "\n  " + printable(line);
    }
    return complaint;
}

// On Debian, only the control script sets the variables and creates the directories that
// the configuration names.
std::string hintFor(const ServerCommand& command, const ProcessAnswer& answer) {
    if (command.executable.kind == Executable::Kind::kScript) return "";
    std::string text = answer.errors + answer.output;
    for (const char* sign : {"is not defined", "Invalid Mutex directory", "DefaultRuntimeDir",
                             "APACHE_", "No such file or directory"}) {
        if (text.find(sign) == text.npos) continue;
        return "\n  If a control script prepares the start, use it: tolvane run -- apachectl start";
    }
    return "";
}

}  // namespace

std::string processingModule(const ServerFacts& facts) {
    constexpr std::string_view kPrefix = "mpm_";
    constexpr std::string_view kSuffix = "_module";
    std::string found;
    for (const std::string& module : facts.modules) {
        if (!module.starts_with(kPrefix) || module.size() <= kPrefix.size() + kSuffix.size())
            continue;
        std::string name =
            module.substr(kPrefix.size(), module.size() - kPrefix.size() - kSuffix.size());
        // mpm_itk is loaded in addition to prefork, which serves.
        if (name != "itk") found = name;
    }
    return found;
}

void parseVersion(std::string_view output, ServerFacts& facts, std::string& compiledRoot) {
    for (std::string_view line : splitLines(output)) {
        if (line.starts_with("Server version: Apache/")) {
            std::string_view version = line.substr(23);
            facts.version =
                std::string(version.substr(0, version.find_first_not_of("0123456789.")));
        } else if (line.starts_with("Architecture:")) {
            if (line.find("64-bit") != line.npos) facts.wordSize = WordSize::k64;
            if (line.find("32-bit") != line.npos) facts.wordSize = WordSize::k32;
        } else if (std::size_t at = line.find("-D HTTPD_ROOT="); at != line.npos) {
            compiledRoot = unquoted(line.substr(at + 14));
        }
    }
}

void parseDump(std::string_view output, ServerFacts& facts) {
    enum class Block { kNone, kFiles, kModules } block = Block::kNone;
    for (std::string_view line : splitLines(output)) {
        bool indented = !line.empty() && line[0] == ' ';
        if (line.starts_with("Included configuration files:")) {
            block = Block::kFiles;
        } else if (line.starts_with("Loaded Modules:")) {
            block = Block::kModules;
        } else if (indented && block == Block::kFiles) {
            readIncludeLine(line, facts);
        } else if (indented && block == Block::kModules) {
            auto words = splitWords(line);
            if (!words.empty()) facts.modules.insert(words.front());
        } else {
            block = Block::kNone;
            if (line.starts_with("ServerRoot:")) facts.serverRoot = unquoted(line.substr(11));
            if (line.starts_with("PidFile:")) facts.pidFile = unquoted(line.substr(8));
            if (line.starts_with("Define:")) {
                std::string define(trim(line.substr(7)));
                std::size_t equals = std::min(define.find('='), define.size());
                facts.defines[define.substr(0, equals)] =
                    equals < define.size() ? define.substr(equals + 1) : "";
            }
        }
    }
    if (facts.mainFile.path.empty()) {
        fail(
            ErrorKind::kInvalidInput,
            "the server does not list its configuration files (this needs Apache 2.4.24); create a "
            "root by hand (see docs/operations.md) and pass it with --root");
    }
}

ServerFacts probeServer(const ServerCommand& command) {
    ServerFacts facts;
    std::string compiledRoot;
    ProcessAnswer version = runAndListen(commandWith(command, {"-V"}), {}, kPatience);
    parseVersion(version.output, facts, compiledRoot);
    if (command.executable.kind == Executable::Kind::kElf) {
        if (command.executable.wordSize != WordSize::kUnknown)
            facts.wordSize = command.executable.wordSize;
        std::string directory =
            command.serverDirectory.empty() ? compiledRoot : command.serverDirectory;
        if (!directory.empty()) facts.environment = startVariables(directory);
    }
    ProcessAnswer dump = runAndListen(commandWith(command, {"-t", "-D", "DUMP_INCLUDES", "-D",
                                                            "DUMP_RUN_CFG", "-D", "DUMP_MODULES"}),
                                      facts.environment, kPatience);
    if (dump.timedOut)
        fail(ErrorKind::kFailed, "{} did not answer within {} s", command.path, kPatience.count());
    if (dump.exitStatus != 0) {
        fail(ErrorKind::kInvalidInput, "{} rejects its configuration:{}{}", command.path,
             complaintOf(dump), hintFor(command, dump));
    }
    parseDump(dump.output, facts);
    for (std::size_t i = 0; i + 1 < command.configurationArguments.size(); i += 2) {
        const std::string& option = command.configurationArguments[i];
        if (option == "-C") facts.before.push_back(command.configurationArguments[i + 1]);
        if (option == "-c") facts.after.push_back(command.configurationArguments[i + 1]);
    }
    return facts;
}

}  // namespace tolvane::agent
