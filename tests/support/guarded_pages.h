// Read-only memory for texts that end before an inaccessible page: code that
// reads on or writes is killed. The address sanitizer guards the memory before a
// text.
#pragma once

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "shim_utils/platform/text.h"

namespace tolvane::test {

class GuardedPages {
  public:
    // Holds texts of up to `capacity` bytes, one at a time.
    explicit GuardedPages(std::size_t capacity)
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          size_((capacity / page_ + 1) * page_) {
        const int file = memfd_create("text", MFD_CLOEXEC);
        if (file < 0 || ftruncate(file, static_cast<off_t>(size_)) != 0) fail();
        own_ = map(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file);
        shown_ = map(nullptr, size_ + page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1);
        map(shown_, size_, PROT_READ, MAP_SHARED | MAP_FIXED, file);
        close(file);
        ASAN_POISON_MEMORY_REGION(shown_, size_);
    }
    ~GuardedPages() {
        ASAN_UNPOISON_MEMORY_REGION(shown_, size_);
        munmap(own_, size_);
        munmap(shown_, size_ + page_);
    }
    GuardedPages(const GuardedPages&) = delete;
    GuardedPages& operator=(const GuardedPages&) = delete;

    // Puts `text` in the place of the one before.
    Bytes put(std::string_view text) {
        if (text.size() > size_) fail();
        const std::size_t start = size_ - text.size();
        if (!text.empty()) std::memcpy(own_ + start, text.data(), text.size());
        ASAN_POISON_MEMORY_REGION(shown_ + start_, size_ - start_);
        ASAN_UNPOISON_MEMORY_REGION(shown_ + start, text.size());
        start_ = start;
        return {shown_ + start, text.size()};
    }

  private:
    [[noreturn]] static void fail() { throw std::runtime_error("no guarded pages"); }
    static char* map(char* at, std::size_t size, int protection, int flags, int file) {
        void* memory = mmap(at, size, protection, flags, file, 0);
        if (memory == MAP_FAILED) fail();
        return static_cast<char*>(memory);
    }

    std::size_t page_;
    std::size_t size_;
    char* own_;
    char* shown_;  // the same pages for the code under test, and one more behind them
    std::size_t start_ = 0;
};

}  // namespace tolvane::test
