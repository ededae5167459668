#include "shim_utils/platform/quiet_write.h"

#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tolvane {
namespace {

// The signal set and the time as the bare system calls expect them.
using Signals = std::uint64_t;
struct Time {
    long seconds;
    long nanoseconds;
};

constexpr Signals only(int signal) {
    return Signals{1} << (signal - 1);
}

// Discards the signal that a failed write has raised in this thread.
void discardSignal(Signals signal) {
    constexpr Time kNow = {0, 0};
    while (syscall(SYS_rt_sigtimedwait, &signal, nullptr, &kNow, sizeof signal) < 0 &&
           errno == EINTR) {
    }
}

}  // namespace

void writeQuietly(int fd, const iovec* vector, int count) {
    constexpr Signals kRaised = only(SIGPIPE) | only(SIGXFSZ);
    Signals before;
    if (syscall(SYS_rt_sigprocmask, SIG_BLOCK, &kRaised, &before, sizeof before) != 0) return;
    Signals waiting = 0;  // signals of the server, pending before the write
    syscall(SYS_rt_sigpending, &waiting, sizeof waiting);
    const bool failed = syscall(SYS_writev, fd, vector, count) < 0;
    const Signals raised = !failed          ? 0
                           : errno == EPIPE ? only(SIGPIPE)
                           : errno == EFBIG ? only(SIGXFSZ)
                                            : 0;
    if ((raised & ~waiting) != 0) discardSignal(raised);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before, nullptr, sizeof before);
}

}  // namespace tolvane
