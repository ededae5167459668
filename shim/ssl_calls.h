// The real functions behind the interposed TLS calls, and the functions of the TLS
// library that the shim itself uses. Neither a header nor a library of OpenSSL is needed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tolvane/internal/shim_tables.h"

struct ssl_st;  // a connection's TLS object

namespace tolvane {

using Ssl = ssl_st;

// Versions of the symbols that callers refer to. The linker gives references without a
// version the first version in exports.map, which is that of OpenSSL 3.
inline constexpr char kSsl3[] = "OPENSSL_3.0.0";
inline constexpr char kSsl110[] = "OPENSSL_1_1_0";
inline constexpr char kSsl111[] = "OPENSSL_1_1_1";

// The functions of a library by which a TLS object is bound to its connection.
class SslObjects {
  public:
    // Looks the functions up in the library that has `address`. False: it lacks one, or
    // is a library whose objects differ from those of OpenSSL 1.1 and 3.
    bool lookUp(const void* address);
    const void* base() const { return base_; }

    // The descriptor that the object is bound to, -1 without.
    int descriptorOf(const Ssl* ssl) const;
    // Binds the object. Needs ErrorsKept.
    void bind(Ssl* ssl, int fd) const;
    bool isServer(const Ssl* ssl) const { return isServer_(ssl) == 1; }
    // The descriptor that the object reads from itself, -1 without. Needs ErrorsKept.
    int ownDescriptor(const Ssl* ssl) const { return getFd_(ssl); }

  private:
    friend class ErrorsKept;

    const void* base_ = nullptr;  // of the library's mapping
    void* (*getData_)(const Ssl*, int) = nullptr;
    int (*setData_)(Ssl*, int, void*) = nullptr;
    int (*getFd_)(const Ssl*) = nullptr;
    int (*isServer_)(const Ssl*) = nullptr;
    int (*setMark_)() = nullptr;
    int (*popToMark_)() = nullptr;
    int index_ = -1;  // of the shim's data in an object
};

// The library's error queue stays as it is, whatever is called meanwhile.
class ErrorsKept {
  public:
    explicit ErrorsKept(const SslObjects& library) : library_(library) { library_.setMark_(); }
    ~ErrorsKept() { library_.popToMark_(); }
    ErrorsKept(const ErrorsKept&) = delete;
    ErrorsKept& operator=(const ErrorsKept&) = delete;

  private:
    const SslObjects& library_;
};

// The bounds of the library's own mapping, which the linker defines.
extern "C" __attribute__((visibility("hidden"))) const char __ehdr_start[];
extern "C" __attribute__((visibility("hidden"))) const char _end[];
inline bool isInShim(const void* address) {
    return address >= __ehdr_start && address < _end;
}

// A real function and its library.
struct SslTarget {
    void* function = nullptr;             // null: there is none
    const SslObjects* library = nullptr;  // null: its objects are not bound
};

// An interposed call, by name and version. Modules of a server may have different TLS
// libraries under the same names, so what the name means depends on who calls.
class SslSymbol {
  public:
    constexpr SslSymbol(const char* symbol, const char* version)
        : symbol_(symbol), version_(version) {}

    // What the code at `caller` means. The first call of each loaded object searches, with
    // the dynamic linker's lock.
    SslTarget find(const void* caller) {
        if (isInShim(caller)) caller = lastSslFunction;
        const auto address = reinterpret_cast<std::uintptr_t>(caller);
        const int count = count_.load(std::memory_order_acquire);
        for (int i = 0; i < count; ++i) {
            const Caller& known = callers_[i];
            if (address >= known.begin && address < known.end) return known.target;
        }
        return resolve(address);
    }

  private:
    // A loaded object that calls. Written under a lock before `count_` is raised, and never
    // changed.
    struct Caller {
        std::uintptr_t begin = 0;  // its mapping
        std::uintptr_t end = 0;
        SslTarget target;
    };
    static constexpr int kMostCallers = 8;

    SslTarget resolve(std::uintptr_t caller);

    const char* symbol_;
    const char* version_;
    std::atomic<int> count_{0};
    Caller callers_[kMostCallers] = {};
};

}  // namespace tolvane
