// SSL_do_handshake and SSL_accept, which read a connection's handshake, and SSL_peek,
// which looks at plaintext without taking it.
#include "ssl_transfer.h"

namespace tolvane {
namespace {

using Handshake = int(Ssl*);
constinit SslEntry<Handshake> doHandshake3{"SSL_do_handshake", kSsl3};
constinit SslEntry<Handshake> doHandshake11{"SSL_do_handshake", kSsl110};
constinit SslEntry<Handshake> accept3{"SSL_accept", kSsl3};
constinit SslEntry<Handshake> accept11{"SSL_accept", kSsl110};

using Peek = int(Ssl*, void*, int);
constinit SslEntry<Peek> peek3{"SSL_peek", kSsl3};
constinit SslEntry<Peek> peek11{"SSL_peek", kSsl110};

using PeekEx = int(Ssl*, void*, std::size_t, std::size_t*);
constinit SslEntry<PeekEx> peekEx3{"SSL_peek_ex", kSsl3};
constinit SslEntry<PeekEx> peekEx11{"SSL_peek_ex", kSsl111};

}  // namespace
}  // namespace tolvane

using namespace tolvane;

TOLVANE_SSL_EXPORT("SSL_do_handshake@@OPENSSL_3.0.0") int tolvane_do_handshake_3(Ssl* ssl) {
    return handshake(doHandshake3, __builtin_return_address(0), -1, ssl);
}
TOLVANE_SSL_EXPORT("SSL_do_handshake@OPENSSL_1_1_0") int tolvane_do_handshake_11(Ssl* ssl) {
    return handshake(doHandshake11, __builtin_return_address(0), -1, ssl);
}

TOLVANE_SSL_EXPORT("SSL_accept@@OPENSSL_3.0.0") int tolvane_accept_3(Ssl* ssl) {
    return handshake(accept3, __builtin_return_address(0), -1, ssl);
}
TOLVANE_SSL_EXPORT("SSL_accept@OPENSSL_1_1_0") int tolvane_accept_11(Ssl* ssl) {
    return handshake(accept11, __builtin_return_address(0), -1, ssl);
}

TOLVANE_SSL_EXPORT("SSL_peek@@OPENSSL_3.0.0")
int tolvane_peek_3(Ssl* ssl, void* buffer, int size) {
    return handshake(peek3, __builtin_return_address(0), -1, ssl, buffer, size);
}
TOLVANE_SSL_EXPORT("SSL_peek@OPENSSL_1_1_0")
int tolvane_peek_11(Ssl* ssl, void* buffer, int size) {
    return handshake(peek11, __builtin_return_address(0), -1, ssl, buffer, size);
}

TOLVANE_SSL_EXPORT("SSL_peek_ex@@OPENSSL_3.0.0")
int tolvane_peek_ex_3(Ssl* ssl, void* buffer, std::size_t size, std::size_t* n) {
    return handshake(peekEx3, __builtin_return_address(0), 0, ssl, buffer, size, n);
}
TOLVANE_SSL_EXPORT("SSL_peek_ex@OPENSSL_1_1_1")
int tolvane_peek_ex_11(Ssl* ssl, void* buffer, std::size_t size, std::size_t* n) {
    return handshake(peekEx11, __builtin_return_address(0), 0, ssl, buffer, size, n);
}
