// The lock file that servers and `tolvane clean` hold while they remove segments.
#pragma once

#include <optional>

#include "os/wait_notice.h"

namespace tolvane::agent {

// Locks, and waits as long as a server does. Throws Error.
class RemovalLock {
  public:
    explicit RemovalLock(const WaitNotice& notice = {});
    ~RemovalLock();
    RemovalLock(const RemovalLock&) = delete;
    RemovalLock& operator=(const RemovalLock&) = delete;
};

// Seconds since the lock file was created, if that is longer than any holder
// needs: its holder has died, and no server can lock it.
std::optional<long> abandonedLockAge();

}  // namespace tolvane::agent
