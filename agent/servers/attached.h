// Which processes have a segment attached, as far as we may look into them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tolvane::agent {

struct AttachedProcesses {
    std::vector<pid_t> servers;  // a measured server's processes
    std::vector<pid_t> others;   // somebody who watches, or another agent
};

// The lines of /proc/PID/maps show the measurement's library.
bool mapsLibrary(const std::vector<std::string>& mappings);

// `mainProcess` is the one that the segment names; -1 when it names none.
AttachedProcesses attachedProcesses(std::int32_t shmid, pid_t mainProcess);

}  // namespace tolvane::agent
