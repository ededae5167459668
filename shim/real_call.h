// The real function behind an interposed call: the next definition of the symbol in
// the dynamic linker's order. It is looked up when the library is loaded, or on
// first use if that is earlier.
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

    // `missing` is logged if the symbol cannot be found; null logs nothing.
    constexpr explicit RealCall(const char* symbol, const char* missing = nullptr)
        : symbol_(symbol), missing_(missing) {}

    // The call; logs an error and returns null if it is missing. Threads that look it
    // up at the same time store the same value.
    Pointer find() {
        Pointer call = pointer_.load(std::memory_order_relaxed);
        return call != nullptr ? call : findUnprepared();
    }

    // Looks the call up before its first use, without logging. A missing call is not
    // looked up again.
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

    // The dynamic linker keeps an error text per thread, which the server may read. A
    // failed lookup sets that text, so it is cleared here.
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
