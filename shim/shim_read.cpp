// read, and its checked variant in hardened binaries.
#include <unistd.h>

#include "real_calls.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane {

constinit RealCall<ssize_t(int, void*, size_t)> real_read{"read",
                                                          "READ  system call  FAILED ... oops !!"};
constinit RealCall<ssize_t(int, void*, size_t, size_t)> real_read_chk{"__read_chk"};

}  // namespace tolvane

using namespace tolvane;

TOLVANE_EXPORT ssize_t read(int fd, void* buffer, size_t count) {
    auto call = real_read.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, count);
    return received(fd, n, buffer, count);
}

TOLVANE_EXPORT ssize_t __read_chk(int fd, void* buffer, size_t count, size_t size) {
    auto call = real_read_chk.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, count, size);
    return received(fd, n, buffer, count);
}
