// The directories that the measured servers and their agent share.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tolvane::agent {

inline constexpr char kAgentDirectory[] = "/opt/tolvane/agent";

// Roots that are prepared for servers whose files lie elsewhere.
inline constexpr char kPreparedRoots[] = "/opt/tolvane/agent/data/servers/";

struct AgentDirectory {
    const char* path;
    mode_t mode;
    const char* purpose;
};

// Servers start and stop as root, so only they write handoff files and the
// lock. Worker processes run as somebody else and write to the log.
inline constexpr AgentDirectory kAgentDirectories[] = {
    {"/opt/tolvane/agent/logs", 01777, "the log"},
    {"/opt/tolvane/agent/config", 0755, "the handoff files"},
    {"/opt/tolvane/agent/data", 0755, "the lock file"},
};

// Creates the directory and those above it; present ones stay as they are.
// Throws Error.
void makeDirectories(const std::string& path, mode_t mode);

// All of the above, and a log file that every worker may append to.
void makeAgentDirectories();

}  // namespace tolvane::agent
