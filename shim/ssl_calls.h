// The real functions behind the interposed TLS calls, and the functions of the TLS
// library that the shim itself uses. Neither a header nor a library of OpenSSL is needed.
#pragma once

#include <atomic>

struct ssl_st;  // a connection's TLS object

namespace tolvane {

using Ssl = ssl_st;

// The function `symbol` of the loaded library whose symbols have `version`, else null.
void* findSslCall(const char* symbol, const char* version);

// The libraries whose calls are interposed. A process may have loaded both. The
// interposed calls carry the same symbol versions, so each caller reaches the wrapper
// of its own library.
enum class SslLibrary { k3, k11 };

// Versions of the symbols. A library without versions is taken for OpenSSL 3.
inline constexpr char kSsl3[] = "OPENSSL_3.0.0";
inline constexpr char kSsl110[] = "OPENSSL_1_1_0";
inline constexpr char kSsl111[] = "OPENSSL_1_1_1";

// The real function of an interposed call. It is looked up on first use, since a
// server may load the library late, and only a module of the server may see it.
template <typename Signature>
class RealSslCall {
  public:
    using Pointer = Signature*;

    constexpr RealSslCall(const char* symbol, const char* version)
        : symbol_(symbol), version_(version) {}

    // Null when there is none. Threads that look it up at the same time store the
    // same value.
    Pointer find() {
        Pointer call = pointer_.load(std::memory_order_relaxed);
        return call != nullptr ? call : lookUp();
    }

  private:
    __attribute__((noinline, cold)) Pointer lookUp() {
        auto call = reinterpret_cast<Pointer>(findSslCall(symbol_, version_));
        pointer_.store(call, std::memory_order_relaxed);
        return call;
    }

    std::atomic<Pointer> pointer_{nullptr};
    const char* symbol_;
    const char* version_;
};

// The functions of a library by which a TLS object is bound to its connection.
class SslObjects {
  public:
    constexpr explicit SslObjects(SslLibrary library) : library_(library) {}

    // False when the library lacks a function. The first call looks them up.
    bool available();

    // The descriptor that the object is bound to, -1 without.
    int descriptorOf(const Ssl* ssl) const;
    // Binds the object. Needs ErrorsKept.
    void bind(Ssl* ssl, int fd) const;
    bool isServer(const Ssl* ssl) const { return isServer_(ssl) == 1; }
    // The descriptor that the object reads from itself, -1 without. Needs ErrorsKept.
    int ownDescriptor(const Ssl* ssl) const { return getFd_(ssl); }

  private:
    friend class ErrorsKept;
    enum State : int { kUnknown, kAvailable, kMissing };
    int lookUp();

    const SslLibrary library_;
    std::atomic<int> state_{kUnknown};
    // Written before `state_`, by each thread that looks them up with the same values.
    void* (*getData_)(const Ssl*, int) = nullptr;
    int (*setData_)(Ssl*, int, void*) = nullptr;
    int (*getFd_)(const Ssl*) = nullptr;
    int (*isServer_)(const Ssl*) = nullptr;
    int (*setMark_)() = nullptr;
    int (*popToMark_)() = nullptr;
    std::atomic<int> index_{-1};  // of the shim's data in an object
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

}  // namespace tolvane
