// SSL_sendfile, whose bytes do not pass through the process. OpenSSL 3 has it, for
// connections that the kernel encrypts.
#include "ssl_transfer.h"

namespace tolvane {
namespace {

// The arguments behind the descriptor are an offset, a size and flags. The width of the
// offset depends on how a 32-bit library was built, so the words are passed on as they
// are.
using SendFile = ssize_t(Ssl*, int, long, std::size_t, long, long);
constinit SslEntry<SendFile> sendFile3{"SSL_sendfile", kSsl3};

}  // namespace
}  // namespace tolvane

using namespace tolvane;

TOLVANE_SSL_EXPORT("SSL_sendfile@@OPENSSL_3.0.0")
ssize_t tolvane_sendfile_3(Ssl* ssl, int fd, long word1, std::size_t word2, long word3,
                           long word4) {
    const auto real = sendFile3.find(__builtin_return_address(0));
    if (real.function == nullptr) return -1;
    SslCall call(reinterpret_cast<const void*>(real.function));
    const ssize_t n = real.function(ssl, fd, word1, word2, word3, word4);
    const SslUse use = {real.library, ssl, call.descriptorRead()};
    if (n > 0) countUnseenPlaintextSent(use, static_cast<std::size_t>(n));
    return n;
}
