// A call that the shim interposes: the next definition of the symbol in the
// dynamic linker's order, found on first use.
#pragma once

#include <dlfcn.h>

#include <atomic>

#include "shim_utils/errno_guard.h"
#include "shim_utils/log.h"

namespace tolvane {

template <typename Signature>
class RealCall {
  public:
    using Pointer = Signature*;

    // `missing` is logged when the symbol cannot be found; null: nothing is.
    constexpr explicit RealCall(const char* symbol, const char* missing = nullptr)
        : symbol_(symbol), missing_(missing) {}

    // The call, or null after logging that it is missing. Two threads that
    // come here first at the same time find and store the same value.
    Pointer find() {
        Pointer call = pointer_.load(std::memory_order_relaxed);
        return call != nullptr ? call : lookUp(missing_);
    }

    // Looks the call up ahead of its first use, silently.
    void prepare() {
        if (pointer_.load(std::memory_order_relaxed) == nullptr) lookUp(nullptr);
    }

  private:
    __attribute__((noinline, cold)) Pointer lookUp(const char* missing) {
        ErrnoGuard guard;
        auto call = reinterpret_cast<Pointer>(dlsym(RTLD_NEXT, symbol_));
        if (call == nullptr && missing != nullptr) printErrorMsg(missing);
        pointer_.store(call, std::memory_order_relaxed);
        return call;
    }

    std::atomic<Pointer> pointer_{nullptr};
    const char* symbol_;
    const char* missing_;
};

}  // namespace tolvane
