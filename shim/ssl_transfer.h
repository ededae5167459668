// The algorithm of all TLS wrappers: find the connection that a TLS object decrypts,
// count its plaintext, return the real result.
#pragma once

#include <cstddef>

#include "shim_utils/accounting/counting.h"
#include "ssl_calls.h"
#include "transfer.h"

namespace tolvane {

// Notes which SSL connection the thread reads from during a TLS call. Calls may nest: the
// early data calls of OpenSSL call SSL_read_ex and SSL_write_ex.
class SslCall {
  public:
    explicit SslCall(const void* real) : before_(lastSslDescriptor) {
        lastSslDescriptor = -1;
        lastSslFunction = real;
        lastSslObject = nullptr;
    }

    // Behind the real call: the connection, -1 for none.
    int descriptorRead() const {
        const int read = lastSslDescriptor;
        if (read < 0) lastSslDescriptor = before_;
        return read;
    }

  private:
    int before_;
};

// A TLS object and what its call has read.
struct SslUse {
    const SslObjects* library;  // null: the object cannot be bound
    Ssl* ssl;
    int descriptorRead;
};

// Binds the object to the connection that its call read from, if it is not bound yet.
void bindToConnection(const SslUse& use);

// Counts plaintext of the object's connection, if it is a tracked SSL connection and a
// nested call has not counted it.
void countPlaintextReceived(const SslUse& use, const void* data, std::size_t n);
void countPlaintextSent(const SslUse& use, const void* data, std::size_t n);
void countUnseenPlaintextSent(const SslUse& use, std::size_t n);

// An interposed call.
template <typename Signature>
class SslEntry {
  public:
    constexpr SslEntry(const char* symbol, const char* version) : symbol_(symbol, version) {}

    struct Target {
        Signature* function;  // null: there is none
        const SslObjects* library;
    };
    Target find(const void* caller) {
        const SslTarget target = symbol_.find(caller);
        return {reinterpret_cast<Signature*>(target.function), target.library};
    }

  private:
    SslSymbol symbol_;
};

// Calls a real function that may read the handshake but takes no plaintext. `failed`:
// the result when there is no real function.
template <typename Signature, typename... Arguments>
int handshake(SslEntry<Signature>& entry, const void* caller, int failed, Ssl* ssl,
              Arguments... arguments) {
    const auto real = entry.find(caller);
    if (real.function == nullptr) return failed;
    SslCall call(reinterpret_cast<const void*>(real.function));
    const int result = real.function(ssl, arguments...);
    const int read = call.descriptorRead();
    if (read >= 0) bindToConnection({real.library, ssl, read});
    return result;
}

}  // namespace tolvane

// Defines an interposed call under the name and version `symbol` of its library. A checker
// of the sources does not know the attribute.
#if __has_attribute(symver)
#define TOLVANE_SSL_EXPORT(symbol) extern "C" __attribute__((visibility("default"), symver(symbol)))
#else
#define TOLVANE_SSL_EXPORT(symbol) extern "C" __attribute__((visibility("default")))
#endif
