#include "ssl_transfer.h"

#include "shim_utils/platform/errno_guard.h"

namespace tolvane {

namespace {

// A tracked SSL connection, or nothing.
struct SslConnection {
    DescriptorState* state = nullptr;
    int slot = -1;

    explicit operator bool() const { return state != nullptr; }
    Connection connection() const { return {*state, slotAt(slot)}; }
};

SslConnection sslConnection(int fd) {
    DescriptorState* state = trackedDescriptor(fd);
    if (state == nullptr) return {};
    const int slot = slotOf(webServerType, fd, *state);
    if (slot < 0) return {};
    const SslConnection found = {state, slot};
    return found.connection().plain() ? SslConnection{} : found;
}

// The connection that an object without a connection decrypts. Servers with buffers of
// their own read the connection first and call the library then.
int connectionOf(const SslUse& use) {
    if (use.descriptorRead >= 0) return use.descriptorRead;
    const int own = use.library->ownDescriptor(use.ssl);
    return own >= 0 ? own : lastSslDescriptor;
}

// Binds the object and returns its connection.
SslConnection bind(const SslUse& use) {
    if (!use.library->isServer(use.ssl)) return {};  // a connection to another server
    const ErrorsKept errors(*use.library);
    const int fd = connectionOf(use);
    const SslConnection found = sslConnection(fd);
    if (!found || !readPlaintextOf(found.connection(), use.ssl)) return {};
    use.library->bind(use.ssl, fd);
    return found;
}

// The connection that the object decrypts. Its frame ends before the counting begins.
[[gnu::noinline]] SslConnection find(const SslUse& use) {
    const int bound = use.library->descriptorOf(use.ssl);
    if (bound < 0) return bind(use);
    if (use.descriptorRead < 0 || use.descriptorRead == bound) {
        const SslConnection found = sslConnection(bound);
        if (found && isReadThrough(found.connection(), use.ssl)) return found;
    }
    // The connection of an object may have ended. It decrypts another connection only if
    // it reads it.
    return use.descriptorRead < 0 ? SslConnection{} : bind(use);
}

// Calls `count` with the connection that the object decrypts.
template <typename Count>
void withConnection(const SslUse& use, Count count) {
    if (use.library == nullptr || !countsMessages) return;
    if (tolvaneShimEnabled.load(std::memory_order_acquire) != 1) return;
    ErrnoGuard guard;
    if (const SslConnection found = find(use)) count(found.connection());
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
