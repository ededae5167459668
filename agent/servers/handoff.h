// The handoff files: "webadapter." and a process id, written by a server when
// its measurement starts.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace tolvane::agent {

struct Handoff {
    std::string path;
    pid_t pid = 0;  // from the file's name: the process that started the measurement
    std::time_t written = 0;
    std::vector<std::string> listen;  // "address:port", as in the server's configuration
    std::int32_t shmid = -1;
    std::string serverType;
    std::int32_t structures = 0;
    std::string problem;  // why the file is not valid; empty if it is valid
};

// Sets the fields that the text contains.
void parseHandoff(std::string_view text, Handoff& handoff);

// The modification time of a handoff file; 0 without one.
std::time_t writtenAt(const std::string& path);

// All handoff files of the directory, ordered by process id. A missing directory is
// empty. Throws Error if the directory cannot be read.
std::vector<Handoff> readHandoffs(const std::string& directory);

}  // namespace tolvane::agent
