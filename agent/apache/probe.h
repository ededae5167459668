// What an Apache reports about itself: its word size, configuration files, modules,
// definitions and pid file.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "apache/command.h"
#include "os/elf.h"

namespace tolvane::agent {

struct IncludedFile {
    std::string path;
    std::size_t line = 0;  // of the including directive, in the file above
    std::vector<IncludedFile> files;
};

struct ServerFacts {
    WordSize wordSize = WordSize::kUnknown;
    std::string version;  // "2.4.62"
    IncludedFile mainFile;
    std::string serverRoot;
    std::string pidFile;
    std::map<std::string, std::string> defines;
    std::set<std::string> modules;    // "ssl_module"
    std::vector<std::string> before;  // directives of -C, read ahead of the files
    std::vector<std::string> after;   // directives of -c
    // Variables that the server's start scripts set, for a start without these
    // scripts.
    std::map<std::string, std::string> environment;
};

// "prefork", "worker", "event", ..., from the loaded modules.
std::string processingModule(const ServerFacts& facts);

// Parse the output of -V, and of -t with DUMP_INCLUDES, DUMP_RUN_CFG and
// DUMP_MODULES. parseDump throws Error if no file is listed.
void parseVersion(std::string_view output, ServerFacts& facts, std::string& compiledRoot);
void parseDump(std::string_view output, ServerFacts& facts);

// Queries the server that the command starts. If its configuration is not valid,
// throws Error with the server's message.
ServerFacts probeServer(const ServerCommand& command);

}  // namespace tolvane::agent
