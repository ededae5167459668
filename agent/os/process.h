// Other processes: running a program for its output, and data from /proc.
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
// be started. `environment` replaces or adds variables. A signal that ends this
// process ends the program as well.
ProcessAnswer runAndListen(const std::vector<std::string>& command,
                           const std::map<std::string, std::string>& environment,
                           std::chrono::seconds limit);

// Whether a process with that id runs, also without permission to signal it. A
// zombie does not run.
bool processExists(pid_t pid);

std::vector<pid_t> allProcesses();

// The first process whose parent is not in the list; 0 for an empty list.
pid_t oldestOf(const std::vector<pid_t>& processes);
std::optional<pid_t> parentOf(pid_t pid);
std::string processName(pid_t pid);  // "?" if it cannot be read

// Empty if it cannot be read (another user's process, or no such process).
std::optional<std::map<std::string, std::string>> processEnvironment(pid_t pid);
std::optional<std::vector<std::string>> processMappings(pid_t pid);

// The process's ids in its process namespaces, that of this process first and its own
// last; empty if it cannot be examined.
std::vector<pid_t> namespaceIds(pid_t pid);

// False when the process cannot be examined.
bool hasShimLoaded(pid_t pid);

// Whether the lines of /proc/PID/maps contain the shim's library.
bool mapsLibrary(const std::vector<std::string>& mappings);

// Whether the process is in the same System V IPC namespace.
bool sharesIpcNamespace(pid_t pid);

}  // namespace tolvane::agent
