// The two ways of counting. A process chooses one at start-up; everything that
// depends on the choice while connections are served is in the table below.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "shim_utils/accounting/accounting.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

// The buffers of a transfer, in their order. No buffers: the content of what was
// transferred is unknown.
struct Buffers {
    const iovec* first = nullptr;
    std::size_t count = 0;
};

// Of the first `n` bytes of a transfer, those in its first buffer.
inline Bytes firstText(Buffers buffers, ssize_t n) {
    if (buffers.count == 0 || buffers.first->iov_base == nullptr || n < 1) return {};
    const auto length = static_cast<std::size_t>(n);
    const std::size_t size = buffers.first->iov_len;
    return {static_cast<const char*>(buffers.first->iov_base), length < size ? length : size};
}

struct Counting {
    // A connection was accepted.
    void (*accepted)(const Connection& connection);
    // `n` > 0 bytes were received.
    void (*received)(const Connection& connection, ssize_t n, Buffers buffers);
    // A send call returned `n`, an error included.
    void (*sent)(const Connection& connection, ssize_t n, Buffers buffers);
    // A connection that this process served is about to be closed.
    void (*closed)(const Connection& connection);
};

// The parts of the table, by socket calls.
void callsAccepted(const Connection& connection);
void callsReceived(const Connection& connection, ssize_t n, Buffers buffers);
void callsSent(const Connection& connection, ssize_t n, Buffers buffers);
void callsClosed(const Connection& connection);

// By HTTP messages. The wire bytes of an SSL connection are counted by socket calls,
// its messages from its plaintext.
void messagesAccepted(const Connection& connection);
void messagesReceived(const Connection& connection, ssize_t n, Buffers buffers);
void messagesSent(const Connection& connection, ssize_t n, Buffers buffers);
void messagesClosed(const Connection& connection);

// Binds an SSL connection from which bytes have arrived to the TLS object whose
// plaintext is its content. False: it is bound to another object, or is not such a
// connection. Messages are counted.
bool readPlaintextOf(const Connection& connection, const void* tlsObject);
// Whether the connection is bound to the object.
bool isReadThrough(const Connection& connection, const void* tlsObject);

// Counts plaintext of a bound connection: received, sent, and sent but not in sight.
void plaintextReceived(const Connection& connection, Bytes text);
void plaintextSent(const Connection& connection, Bytes text);
void unseenPlaintextSent(const Connection& connection, std::uint64_t n);

// Makes `counting` the table of the way that the environment asks for. Called once,
// before measurement is switched on.
void chooseCounting();

}  // namespace tolvane
