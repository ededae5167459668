// The directories that measured servers and the agent share.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tolvane/paths.h"

namespace tolvane::agent {

struct AgentDirectory {
    const char* path;
    mode_t mode;
    const char* purpose;
};

// Servers start and stop as root and then write handoff files and the lock file.
// Worker processes run as another user and write to the log only.
inline constexpr AgentDirectory kAgentDirectories[] = {
    {kLogDirectory, 01777, "the log"},
    {kConfigDirectory, 0755, "the handoff files"},
    {kDataDirectory, 0755, "the lock file"},
};

// Creates the directory and its parents; existing directories are not changed.
// Throws Error.
void makeDirectories(const std::string& path, mode_t mode);

// Creates all of the above, and a log file to which every worker can append.
void makeAgentDirectories();

}  // namespace tolvane::agent
