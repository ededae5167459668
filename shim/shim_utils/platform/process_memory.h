// Zeroed memory for tables that live as long as the process.
#pragma once

#include <sys/mman.h>

#include <cstddef>

namespace tolvane {

// `size` bytes of zeroes straight from the system, null when there are none to
// be had. A page costs memory only once it is written, huge pages excepted,
// which are therefore declined: tables here are large and thinly used.
inline void* allocateZeroed(std::size_t size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    madvise(memory, size, MADV_NOHUGEPAGE);
    return memory;
}

}  // namespace tolvane
