// Zeroed memory for tables that exist as long as the process.
#pragma once

#include <sys/mman.h>

#include <cstddef>

namespace tolvane {

// Allocates `size` zeroed bytes from the system; null on failure. The tables are
// large and sparsely used, and a page costs memory only after it is written. Huge
// pages are turned off, because each would cost memory for a large part of a table.
inline void* allocateZeroed(std::size_t size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    madvise(memory, size, MADV_NOHUGEPAGE);
    return memory;
}

}  // namespace tolvane
