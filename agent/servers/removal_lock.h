// The lock file that servers and `tolvane clean` hold while they remove segments.
#pragma once

#include <optional>

#include "os/wait_notice.h"

namespace tolvane::agent {

// Locks, with the same time limit as a server. Throws Error.
class RemovalLock {
  public:
    explicit RemovalLock(const WaitNotice& notice = {});
    ~RemovalLock();
    RemovalLock(const RemovalLock&) = delete;
    RemovalLock& operator=(const RemovalLock&) = delete;
};

// Seconds since the creation of the lock file, if they exceed the time that any
// holder needs: the holder has ended, and no server can lock.
std::optional<long> abandonedLockAge();

}  // namespace tolvane::agent
