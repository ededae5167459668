// Locks on bytes of a file that assign servers and state directories to collectors.
// The system releases them when their holder ends for any reason.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "tolvane/paths.h"

namespace tolvane::agent {

class OwnershipLock {
  public:
    // Opens the file, and creates it if there is none. Throws Error.
    explicit OwnershipLock(const std::string& path);
    ~OwnershipLock();
    OwnershipLock(const OwnershipLock&) = delete;
    OwnershipLock& operator=(const OwnershipLock&) = delete;

    // Locks a number of 0 or more, such as a segment's identifier. Returns 0 on
    // success, else the process that holds it (-1 when it is unknown).
    pid_t acquire(std::int32_t number) const;
    void release(std::int32_t number) const;

  private:
    int fd_;
};

}  // namespace tolvane::agent
