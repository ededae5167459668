// A server's command line: its program, and the arguments that select its
// configuration.
#pragma once

#include <string>
#include <vector>

#include "os/elf.h"

namespace tolvane::agent {

enum class ServerKind { kUnknown, kApache, kNetscape };

struct ServerCommand {
    std::vector<std::string> words;
    std::string path;                        // of words[0], found as by execvp
    Executable executable;                   // the kind of the file
    ServerKind kind = ServerKind::kUnknown;  // by its name
    // An Apache's -C, -c, -D, -d and -f with their values, for queries to the same
    // server.
    std::vector<std::string> configurationArguments;
    std::string serverDirectory;  // -d
};

// Throws Error if there is no such executable.
ServerCommand inspectCommand(const std::vector<std::string>& words);

// The executables that a script's text mentions, by absolute path or for the
// search path, and that look like a web server.
std::vector<std::string> serversNamedIn(const std::string& scriptText);

}  // namespace tolvane::agent
