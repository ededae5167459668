// Which collector owns which server, and which state directory: locks on bytes
// of a file, which the system releases when their holder ends, however it ends.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace tolvane::agent {

inline constexpr char kOwnershipFile[] = "/opt/tolvane/agent/data/collectors";

class OwnershipLock {
  public:
    // Opens the file, and creates it if there is none. Throws Error.
    explicit OwnershipLock(const std::string& path);
    ~OwnershipLock();
    OwnershipLock(const OwnershipLock&) = delete;
    OwnershipLock& operator=(const OwnershipLock&) = delete;

    // Locks a number of 0 or more, such as a segment's identifier. Returns 0 on
    // success, else the process that holds it (-1 when the system does not say).
    pid_t acquire(std::int32_t number) const;
    void release(std::int32_t number) const;

  private:
    int fd_;
};

}  // namespace tolvane::agent
