// Other processes: starting one to hear its answer, and what /proc tells.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tolvane::agent {

struct ProcessAnswer {
    int exitStatus = -1;  // -1 when a signal or the time limit ended it
    bool timedOut = false;
    std::string output;
    std::string errors;
};

// Runs a program and collects what it writes. Throws Error when it cannot
// be started. `environment` replaces or adds variables. A signal that ends us
// in the meantime ends it as well.
ProcessAnswer runAndListen(const std::vector<std::string>& command,
                           const std::map<std::string, std::string>& environment,
                           std::chrono::seconds limit);

// A process of that id runs (also one that we may not signal). One that has
// ended and waits for its parent to notice does not.
bool processExists(pid_t pid);

std::vector<pid_t> allProcesses();

// The one whose parent is none of them; 0 when there are none.
pid_t oldestOf(const std::vector<pid_t>& processes);
std::optional<pid_t> parentOf(pid_t pid);
std::string processName(pid_t pid);  // "?" when it cannot be read

// Nothing when it cannot be read (another user's process, or gone).
std::optional<std::map<std::string, std::string>> processEnvironment(pid_t pid);
std::optional<std::vector<std::string>> processMappings(pid_t pid);

// As far as it can be looked into.
bool hasShimLoaded(pid_t pid);

// The process lives in our own System V IPC namespace.
bool sharesIpcNamespace(pid_t pid);

}  // namespace tolvane::agent
