// A server as the system sees it: the CPU time and the memory of its processes.
#pragma once

#include <sys/types.h>

#include <vector>

namespace tolvane::bench {

struct Memory {
    double proportional = 0;  // KB; pages that several processes share, in parts
    double privateDirty = 0;  // KB
};

class ServerProcesses {
  public:
    // `root` and all that descend from it now. They have to stay until the end.
    explicit ServerProcesses(pid_t root);

    // Nanoseconds used so far, by all threads, in the system's calls and
    // outside. Up to date for what sleeps at the moment. Throws
    // std::runtime_error when one of the processes is gone.
    double cpuTime() const;

    // The median over the processes that serve: the root's children, or the
    // root when it has none.
    Memory memoryPerProcess() const;

  private:
    std::vector<pid_t> pids_;
};

}  // namespace tolvane::bench
