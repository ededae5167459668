// Restores errno. A server reads it after a call, so the shim's own work around the
// call must not change it.
#pragma once

#include <cerrno>

namespace tolvane {

class ErrnoGuard {
  public:
    ErrnoGuard() : saved_(errno) {}
    ~ErrnoGuard() { errno = saved_; }
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;

  private:
    int saved_;
};

}  // namespace tolvane
