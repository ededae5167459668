// write.
#include <unistd.h>

#include "real_calls.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane {

constinit RealCall<ssize_t(int, const void*, size_t)> real_write{
    "write", "WRITE  system call  FAILED ... oops !!"};

}  // namespace tolvane

using namespace tolvane;

TOLVANE_EXPORT ssize_t write(int fd, const void* buffer, size_t count) {
    auto call = real_write.find();
    if (call == nullptr) return -1;
    ssize_t n = call(fd, buffer, count);
    return sent(fd, n, buffer, count);
}
