#include "ssl_transfer.h"

#include "shim_utils/platform/errno_guard.h"

namespace tolvane {

constinit SslObjects real_ssl3{SslLibrary::k3};
constinit SslObjects real_ssl11{SslLibrary::k11};

namespace {

// Calls `visit` with the tracked SSL connection `fd`. False if it is none, or if
// `visit` returns false.
template <typename Visit>
bool withSslConnection(int fd, Visit visit) {
    DescriptorState* state = trackedDescriptor(fd);
    if (state == nullptr) return false;
    const int slot = slotOf(webServerType, fd, *state);
    if (slot < 0) return false;
    const Connection connection = {*state, slotAt(slot)};
    return !connection.plain() && visit(connection);
}

// The connection that an object without a connection decrypts. Servers with buffers of
// their own read the connection first and call the library then.
int connectionOf(const SslUse& use) {
    if (use.descriptorRead >= 0) return use.descriptorRead;
    const int own = use.library.ownDescriptor(use.ssl);
    return own >= 0 ? own : lastSslDescriptor;
}

// Binds the object and returns its connection, -1 if it has none.
int bind(const SslUse& use) {
    if (!use.library.isServer(use.ssl)) return -1;  // a connection to another server
    const ErrorsKept errors(use.library);
    const int fd = connectionOf(use);
    const bool binds = withSslConnection(
        fd, [&use](const Connection& connection) { return readPlaintextOf(connection, use.ssl); });
    if (!binds) return -1;
    use.library.bind(use.ssl, fd);
    return fd;
}

// Calls `count` with the connection that the object decrypts.
template <typename Count>
void withConnection(const SslUse& use, Count count) {
    if (!countsMessages || tolvaneShimEnabled.load(std::memory_order_acquire) != 1) return;
    ErrnoGuard guard;
    if (!use.library.available()) return;
    const int bound = use.library.descriptorOf(use.ssl);
    const auto counts = [&](const Connection& connection) {
        if (!isReadThrough(connection, use.ssl)) return false;
        count(connection);
        return true;
    };
    const bool same = use.descriptorRead < 0 || use.descriptorRead == bound;
    if (bound >= 0 && same && withSslConnection(bound, counts)) return;
    // The connection of an object may have ended. It decrypts another connection only if
    // it reads it.
    if (bound >= 0 && use.descriptorRead < 0) return;
    const int fd = bind(use);
    if (fd >= 0) withSslConnection(fd, counts);
}

// The same for plaintext that a nested call has not counted.
template <typename Count>
void withPlaintext(const SslUse& use, Count count) {
    if (lastSslObject == use.ssl) return;
    withConnection(use, [&](const Connection& connection) {
        count(connection);
        lastSslObject = use.ssl;
    });
}

Bytes bytesOf(const void* data, std::size_t n) {
    return {static_cast<const char*>(data), n};
}

}  // namespace

void bindToConnection(const SslUse& use) {
    withConnection(use, [](const Connection&) {});
}

void countPlaintextReceived(const SslUse& use, const void* data, std::size_t n) {
    withPlaintext(use, [&](const Connection& connection) {
        plaintextReceived(connection, bytesOf(data, n));
    });
}

void countPlaintextSent(const SslUse& use, const void* data, std::size_t n) {
    withPlaintext(use, [&](const Connection& connection) {
        plaintextSent(connection, bytesOf(data, n));
        if (webServerType == kApacheProcesses) publishEveryInterval();
    });
}

void countUnseenPlaintextSent(const SslUse& use, std::size_t n) {
    withPlaintext(use, [&](const Connection& connection) { unseenPlaintextSent(connection, n); });
}

}  // namespace tolvane
