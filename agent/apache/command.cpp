#include "apache/command.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

// "httpd.worker", "apache2ctl-shop", "ns-httpd"
ServerKind kindByName(std::string_view name) {
    for (std::string_view apache : {"apache2", "httpd", "apachectl", "apache"}) {
        if (name.starts_with(apache)) return ServerKind::kApache;
    }
    return name.starts_with("ns-httpd") ? ServerKind::kNetscape : ServerKind::kUnknown;
}

void readArguments(ServerCommand& command) {
    constexpr std::string_view kWithValue = "CcDdEefk";
    constexpr std::string_view kAboutConfiguration = "CcDdf";
    for (std::size_t i = 1; i < command.words.size(); ++i) {
        const std::string& word = command.words[i];
        if (word.size() < 2 || word[0] != '-' ||
            kWithValue.find(word[1]) == std::string_view::npos) {
            continue;
        }
        char option = word[1];
        std::string value = word.substr(2);
        if (value.empty() && i + 1 < command.words.size()) value = command.words[++i];
        if (kAboutConfiguration.find(option) == std::string_view::npos) continue;
        command.configurationArguments.push_back(word.substr(0, 2));
        command.configurationArguments.push_back(value);
        if (option == 'd') command.serverDirectory = value;
    }
}

}  // namespace

ServerCommand inspectCommand(const std::vector<std::string>& words) {
    ServerCommand command;
    command.words = words;
    auto path = findInPath(words.at(0));
    if (!path) {
        bool there =
            words[0].find('/') != std::string::npos && ::access(words[0].c_str(), F_OK) == 0;
        fail(ErrorKind::kInvalidInput, "{}: {}", words[0],
             there ? "not an executable file" : "no such executable");
    }
    command.path = *path;
    command.executable = inspectExecutable(*path);
    if (command.executable.kind == Executable::Kind::kUnreadable) {
        fail(ErrorKind::kInvalidInput, "{}: cannot be read", *path);
    }
    command.kind = kindByName(baseName(*path));
    if (command.kind == ServerKind::kApache) readArguments(command);
    return command;
}

std::vector<std::string> serversNamedIn(const std::string& scriptText) {
    constexpr std::string_view kBetweenWords = " \t\r\n\"'`$;|&<>(){}=:";
    std::vector<std::string> found;
    std::size_t at = scriptText.find_first_not_of(kBetweenWords);
    while (at != std::string::npos) {
        std::size_t end = std::min(scriptText.find_first_of(kBetweenWords, at), scriptText.size());
        std::string word = scriptText.substr(at, end - at);
        at = scriptText.find_first_not_of(kBetweenWords, end);
        bool relative = word[0] != '/' && word.find('/') != word.npos;
        if (relative || kindByName(baseName(word)) == ServerKind::kUnknown) continue;
        auto path = findInPath(word);
        if (!path || inspectExecutable(*path).kind != Executable::Kind::kElf) continue;
        if (std::find(found.begin(), found.end(), *path) == found.end()) found.push_back(*path);
    }
    return found;
}

}  // namespace tolvane::agent
