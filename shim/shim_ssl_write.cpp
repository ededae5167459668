// SSL_write, its variant with a size_t, and the variant for early data.
#include "ssl_transfer.h"

namespace tolvane {
namespace {

using Write = int(Ssl*, const void*, int);
constinit SslEntry<Write> write3{"SSL_write", kSsl3};
constinit SslEntry<Write> write11{"SSL_write", kSsl110};

using WriteEx = int(Ssl*, const void*, std::size_t, std::size_t*);
constinit SslEntry<WriteEx> writeEx3{"SSL_write_ex", kSsl3};
constinit SslEntry<WriteEx> writeEx11{"SSL_write_ex", kSsl111};
constinit SslEntry<WriteEx> writeEarly3{"SSL_write_early_data", kSsl3};
constinit SslEntry<WriteEx> writeEarly11{"SSL_write_early_data", kSsl111};

int writeFrom(SslEntry<Write>& entry, const void* caller, Ssl* ssl, const void* buffer, int size) {
    const auto real = entry.find(caller);
    if (real.function == nullptr) return -1;
    SslCall call(reinterpret_cast<const void*>(real.function));
    const int n = real.function(ssl, buffer, size);
    const SslUse use = {real.library, ssl, call.descriptorRead()};
    if (n > 0) countPlaintextSent(use, buffer, static_cast<std::size_t>(n));
    return n;
}

// `*n` is the number of bytes where the result is 1.
int writeFrom(SslEntry<WriteEx>& entry, const void* caller, Ssl* ssl, const void* buffer,
              std::size_t size, std::size_t* n) {
    const auto real = entry.find(caller);
    if (real.function == nullptr) return 0;
    SslCall call(reinterpret_cast<const void*>(real.function));
    const int result = real.function(ssl, buffer, size, n);
    const SslUse use = {real.library, ssl, call.descriptorRead()};
    if (result == 1 && *n != 0) countPlaintextSent(use, buffer, *n);
    return result;
}

}  // namespace
}  // namespace tolvane

using namespace tolvane;

TOLVANE_SSL_EXPORT("SSL_write@@OPENSSL_3.0.0")
int tolvane_write_3(Ssl* ssl, const void* buffer, int size) {
    return writeFrom(write3, __builtin_return_address(0), ssl, buffer, size);
}
TOLVANE_SSL_EXPORT("SSL_write@OPENSSL_1_1_0")
int tolvane_write_11(Ssl* ssl, const void* buffer, int size) {
    return writeFrom(write11, __builtin_return_address(0), ssl, buffer, size);
}

TOLVANE_SSL_EXPORT("SSL_write_ex@@OPENSSL_3.0.0")
int tolvane_write_ex_3(Ssl* ssl, const void* buffer, std::size_t size, std::size_t* n) {
    return writeFrom(writeEx3, __builtin_return_address(0), ssl, buffer, size, n);
}
TOLVANE_SSL_EXPORT("SSL_write_ex@OPENSSL_1_1_1")
int tolvane_write_ex_11(Ssl* ssl, const void* buffer, std::size_t size, std::size_t* n) {
    return writeFrom(writeEx11, __builtin_return_address(0), ssl, buffer, size, n);
}

TOLVANE_SSL_EXPORT("SSL_write_early_data@@OPENSSL_3.0.0")
int tolvane_write_early_data_3(Ssl* ssl, const void* buffer, std::size_t size, std::size_t* n) {
    return writeFrom(writeEarly3, __builtin_return_address(0), ssl, buffer, size, n);
}
TOLVANE_SSL_EXPORT("SSL_write_early_data@OPENSSL_1_1_1")
int tolvane_write_early_data_11(Ssl* ssl, const void* buffer, std::size_t size, std::size_t* n) {
    return writeFrom(writeEarly11, __builtin_return_address(0), ssl, buffer, size, n);
}
