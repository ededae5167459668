// Runs a function at the next access to a page of memory, in the thread that
// accesses it, like a watchpoint of a debugger.
#pragma once

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <functional>

namespace tolvane::test {

class PageTrap {
  public:
    explicit PageTrap(std::function<void()> then) : then_(std::move(then)) {
        current = this;
        struct sigaction action = {};
        action.sa_handler = [](int) { current->spring(); };
        sigaction(SIGSEGV, &action, &before_);
    }
    ~PageTrap() { sigaction(SIGSEGV, &before_, nullptr); }
    PageTrap(const PageTrap&) = delete;
    PageTrap& operator=(const PageTrap&) = delete;

    // Traps accesses to the page of `address`; with PROT_READ, only writes.
    void set(const void* address, int allowed) {
        const auto size = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        page_ = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(address) & ~(size - 1));
        mprotect(page_, size, allowed);
    }
    void release() { set(page_, PROT_READ | PROT_WRITE); }
    int sprung() const { return sprung_; }

  private:
    void spring() {
        ++sprung_;
        release();
        then_();
    }

    inline static PageTrap* current;
    std::function<void()> then_;
    void* page_ = nullptr;
    int sprung_ = 0;
    struct sigaction before_ = {};
};

}  // namespace tolvane::test
