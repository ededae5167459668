// The lock file under which segments are removed, by servers that end and by
// `tolvane clean`.
#pragma once

#include <optional>

#include "os/wait_notice.h"

namespace tolvane::agent {

// Takes the lock, waiting as long as a server would. Throws Error.
class RemovalLock {
  public:
    explicit RemovalLock(const WaitNotice& notice = {});
    ~RemovalLock();
    RemovalLock(const RemovalLock&) = delete;
    RemovalLock& operator=(const RemovalLock&) = delete;
};

// Seconds since the lock was taken, when that is longer than any holder needs:
// it died while holding it, and every server that ends now waits in vain.
std::optional<long> abandonedLockAge();

}  // namespace tolvane::agent
