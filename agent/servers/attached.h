// The processes that have a segment attached and can be examined.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tolvane::agent {

struct AttachedProcesses {
    std::vector<pid_t> servers;  // a measured server's processes
    std::vector<pid_t> others;   // readers, or another agent
};

// `mainProcess` is the process id in the segment; -1 while unknown.
AttachedProcesses attachedProcesses(std::int32_t shmid, pid_t mainProcess);

// Whether the lines of /proc/PID/maps contain the segment, of the process's namespace.
bool mapsSegment(const std::vector<std::string>& mappings, std::int32_t shmid);

// The server's main process, whose id in the segment is that of its own process
// namespace.
struct MainProcess {
    pid_t pid = 0;       // 0 while unknown, or not visible in this namespace
    bool ended = false;  // and other processes of the server remain
};
MainProcess mainProcessOf(std::int32_t parentPid, std::size_t attachedCount,
                          const AttachedProcesses& attached);

// How many of the `attached` processes, as the kernel counts them, are the server's.
// All except known readers are: some cannot be examined, or are in another process
// namespace.
std::size_t serverProcesses(std::size_t attached, const AttachedProcesses& known);

}  // namespace tolvane::agent
