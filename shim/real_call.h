// A call that the shim interposes: the next definition of the symbol in the
// dynamic linker's order. It is found when the library is loaded, or on first use
// where that comes earlier.
#pragma once

#include <dlfcn.h>

#include <atomic>

#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"

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
        return call != nullptr ? call : findUnprepared();
    }

    // Looks the call up ahead of its first use, silently. A call that is missing
    // now is missing for good, and is not asked for again.
    void prepare() {
        if (pointer_.load(std::memory_order_relaxed) != nullptr) return;
        missingAtLoad_.store(lookUp() == nullptr, std::memory_order_relaxed);
    }

  private:
    __attribute__((noinline, cold)) Pointer findUnprepared() {
        Pointer call = missingAtLoad_.load(std::memory_order_relaxed) ? nullptr : lookUp();
        if (call == nullptr && missing_ != nullptr) printErrorMsg(missing_);
        return call;
    }

    // The dynamic linker keeps one error text per thread, for the server to fetch.
    // A look-up replaces it; the text of our own failed one is not left there.
    Pointer lookUp() {
        ErrnoGuard guard;
        auto call = reinterpret_cast<Pointer>(dlsym(RTLD_NEXT, symbol_));
        if (call == nullptr) dlerror();
        pointer_.store(call, std::memory_order_relaxed);
        return call;
    }

    std::atomic<Pointer> pointer_{nullptr};
    std::atomic<bool> missingAtLoad_{false};
    const char* symbol_;
    const char* missing_;
};

}  // namespace tolvane
