// SSL_read, its variant with a size_t, and the variant for early data.
#include "ssl_transfer.h"

namespace tolvane {
namespace {

using Read = int(Ssl*, void*, int);
constinit SslEntry<Read> read3{"SSL_read", kSsl3};
constinit SslEntry<Read> read11{"SSL_read", kSsl110};

using ReadEx = int(Ssl*, void*, std::size_t, std::size_t*);
constinit SslEntry<ReadEx> readEx3{"SSL_read_ex", kSsl3};
constinit SslEntry<ReadEx> readEx11{"SSL_read_ex", kSsl111};
constinit SslEntry<ReadEx> readEarly3{"SSL_read_early_data", kSsl3};
constinit SslEntry<ReadEx> readEarly11{"SSL_read_early_data", kSsl111};

// Counts the first `n` bytes of `buffer`, if the call has read any.
void countRead(const SslUse& use, const void* buffer, std::size_t n) {
    if (n != 0) {
        countPlaintextReceived(use, buffer, n);
    } else if (use.descriptorRead >= 0) {
        bindToConnection(use);  // the call has read the handshake
    }
}

int readInto(SslEntry<Read>& entry, const void* caller, Ssl* ssl, void* buffer, int size) {
    const auto real = entry.find(caller);
    if (real.function == nullptr) return -1;
    SslCall call(reinterpret_cast<const void*>(real.function));
    const int n = real.function(ssl, buffer, size);
    countRead({real.library, ssl, call.descriptorRead()}, buffer,
              n > 0 ? static_cast<std::size_t>(n) : 0);
    return n;
}

// `*n` is the number of bytes where the result is 1.
int readInto(SslEntry<ReadEx>& entry, const void* caller, Ssl* ssl, void* buffer, std::size_t size,
             std::size_t* n) {
    const auto real = entry.find(caller);
    if (real.function == nullptr) return 0;
    SslCall call(reinterpret_cast<const void*>(real.function));
    const int result = real.function(ssl, buffer, size, n);
    countRead({real.library, ssl, call.descriptorRead()}, buffer, result == 1 ? *n : 0);
    return result;
}

}  // namespace
}  // namespace tolvane

using namespace tolvane;

TOLVANE_SSL_EXPORT("SSL_read@@OPENSSL_3.0.0")
int tolvane_read_3(Ssl* ssl, void* buffer, int size) {
    return readInto(read3, __builtin_return_address(0), ssl, buffer, size);
}
TOLVANE_SSL_EXPORT("SSL_read@OPENSSL_1_1_0")
int tolvane_read_11(Ssl* ssl, void* buffer, int size) {
    return readInto(read11, __builtin_return_address(0), ssl, buffer, size);
}

TOLVANE_SSL_EXPORT("SSL_read_ex@@OPENSSL_3.0.0")
int tolvane_read_ex_3(Ssl* ssl, void* buffer, std::size_t size, std::size_t* n) {
    return readInto(readEx3, __builtin_return_address(0), ssl, buffer, size, n);
}
TOLVANE_SSL_EXPORT("SSL_read_ex@OPENSSL_1_1_1")
int tolvane_read_ex_11(Ssl* ssl, void* buffer, std::size_t size, std::size_t* n) {
    return readInto(readEx11, __builtin_return_address(0), ssl, buffer, size, n);
}

TOLVANE_SSL_EXPORT("SSL_read_early_data@@OPENSSL_3.0.0")
int tolvane_read_early_data_3(Ssl* ssl, void* buffer, std::size_t size, std::size_t* n) {
    return readInto(readEarly3, __builtin_return_address(0), ssl, buffer, size, n);
}
TOLVANE_SSL_EXPORT("SSL_read_early_data@OPENSSL_1_1_1")
int tolvane_read_early_data_11(Ssl* ssl, void* buffer, std::size_t size, std::size_t* n) {
    return readInto(readEarly11, __builtin_return_address(0), ssl, buffer, size, n);
}
