// Text that ends right before memory that must not be touched, and that cannot
// be written to itself: a test that reads on or writes dies.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "shim_utils/platform/text.h"

namespace tolvane::test {

class GuardedText {
  public:
    explicit GuardedText(std::string_view text) : length_(text.size()) {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t usable = (text.size() / page + 1) * page;
        size_ = usable + page;
        void* memory =
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::runtime_error("mmap");
        memory_ = static_cast<char*>(memory);
        text_ = memory_ + usable - text.size();
        std::memcpy(text_, text.data(), text.size());
        mprotect(memory_, usable, PROT_READ);
        mprotect(memory_ + usable, page, PROT_NONE);
    }
    ~GuardedText() { munmap(memory_, size_); }
    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;

    Bytes bytes() const { return {text_, length_}; }

  private:
    std::size_t length_;
    std::size_t size_;
    char* memory_;
    char* text_;
};

inline std::string_view viewOf(Bytes bytes) {
    return bytes.data == nullptr ? std::string_view("(none)")
                                 : std::string_view(bytes.data, bytes.length);
}

}  // namespace tolvane::test
