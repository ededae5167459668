// Which processes have a segment attached, as far as we may look into them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace tolvane::agent {

struct AttachedProcesses {
    std::vector<pid_t> writers;  // a measured server's processes
    std::vector<pid_t> readers;  // attached read-only: somebody who watches
};

AttachedProcesses attachedProcesses(std::int32_t shmid);

}  // namespace tolvane::agent
