// Restores errno: a server reads it after a call, and the bookkeeping around
// that call must not be seen in it.
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
