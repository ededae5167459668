// Counting by HTTP messages: which bytes of a connection carry messages, and in which
// protocol.
#include "shim_utils/accounting/counters.h"
#include "shim_utils/accounting/counting.h"
#include "shim_utils/accounting/http1_counting.h"
#include "shim_utils/accounting/http2_counting.h"

namespace tolvane {
namespace {

int descriptorOf(const Connection& connection) {
    return static_cast<int>(&connection.descriptor - descriptors);
}

ConnectionMessages& messagesOf(const Connection& connection) {
    return *connection.slot.state.messages;
}

// False for an earlier connection of a process that has a single slot.
bool holdsSlot(const Connection& connection) {
    return messagesOf(connection).descriptor == descriptorOf(connection);
}

bool isHttp2(const ConnectionMessages& state) {
    return state.protocol == Protocol::kHttp2 || state.protocol == Protocol::kUpgraded;
}

// Decides on the protocol by the first bytes that a client sends. Only HTTP/2 has a
// method "PRI". Returns the end of what belonged to the decision.
const char* decideProtocol(const Messages& messages, Bytes part) {
    constexpr std::uint8_t kDecisive = 3;
    ConnectionMessages& state = messages.state;
    const char* p = part.data;
    const char* const end = p + part.length;
    while (p != end && state.prefaceBytes < kDecisive && *p == kHttp2Preface[state.prefaceBytes]) {
        ++p;
        ++state.prefaceBytes;
    }
    if (state.prefaceBytes == kDecisive) {
        beginHttp2(messages, kDecisive);
        return p;
    }
    const std::int64_t start = state.requestStart;  // of the part of the preface
    if (p != end) {
        state.protocol = Protocol::kHttp1;
        http1Received(messages, {kHttp2Preface, state.prefaceBytes});
    }
    state.requestStart = state.prefaceBytes != 0 && start == 0 ? now() : start;
    return p;
}

// Whether a server's first byte is that of its settings of HTTP/2. It may send them before
// the client's preface arrives.
bool beginsWithSettings(Bytes part) {
    return part.length != 0 && part.data[0] == '\0';
}

void receivedText(const Messages& messages, Bytes part) {
    const char* const end = part.data + part.length;
    const char* p = part.data;
    if (messages.state.protocol == Protocol::kUnknown) p = decideProtocol(messages, part);
    const Bytes rest = {p, static_cast<std::size_t>(end - p)};
    if (rest.length == 0) return;
    if (isHttp2(messages.state)) {
        http2Received(messages, rest);
    } else {
        http1Received(messages, rest);
    }
}

void receivedUnseen(const Messages& messages, std::uint64_t n) {
    if (isHttp2(messages.state)) return http2ReceivedUnseen(messages, n);
    messages.state.protocol = Protocol::kHttp1;
    http1ReceivedUnseen(messages, n);
}

void sentText(const Messages& messages, Bytes part) {
    const ConnectionMessages& state = messages.state;
    if (state.protocol == Protocol::kUnknown && state.prefaceBytes == 0 &&
        !state.responses.begun() && beginsWithSettings(part)) {
        beginHttp2(messages, 0);
    }
    if (!isHttp2(messages.state)) {
        const char* const end = part.data + part.length;
        const char* const p = http1Sent(messages, part);
        if (p == end) return;
        part = {p, static_cast<std::size_t>(end - p)};
    }
    http2Sent(messages, part);
}

void sentUnseen(const Messages& messages, std::uint64_t n) {
    if (isHttp2(messages.state)) return http2SentUnseen(messages, n);
    http1SentUnseen(messages, n);
}

// Calls `read` with each part of a transfer of `n` bytes, and `skip` with the number
// of bytes that are not in sight.
template <typename Read, typename Skip>
void forEachPart(ssize_t n, Buffers buffers, Read read, Skip skip) {
    auto left = static_cast<std::size_t>(n);
    for (std::size_t i = 0; i < buffers.count && left != 0; ++i) {
        const iovec& buffer = buffers.first[i];
        const std::size_t length = buffer.iov_len < left ? buffer.iov_len : left;
        if (buffer.iov_base == nullptr) break;
        read(Bytes{static_cast<const char*>(buffer.iov_base), length});
        left -= length;
    }
    if (left != 0) skip(std::uint64_t{left});
}

// The close of an SSL connection whose plaintext is not read. A program outside the
// shim may have reported its requests.
void unreadClosed(const Connection& connection) {
    if (messagesOf(connection).reported) return callsClosed(connection);
    addTo(connection.slot.result.total.openConnections, -1);
}

}  // namespace

void messagesAccepted(const Connection& connection) {
    ConnectionMessages& state = messagesOf(connection);
    const Messages messages = {connection, state};
    // The slot's last connection may have ended without a close that the shim saw.
    stopHttp1(messages);
    if (isHttp2(state)) stopHttp2(messages);
    state.protocol = Protocol::kUnknown;
    state.prefaceBytes = 0;
    state.requestStart = 0;
    state.requests = RequestReader{};
    state.responses = ResponseReader{};
    state.answers = false;
    state.firstSite = -1;
    state.descriptor = descriptorOf(connection);
    state.tlsObject = nullptr;
    state.receivedWire = false;
    state.reported = false;
    state.lastHost.length = 0;  // the default port depends on the kind of connection
}

void messagesReceived(const Connection& connection, ssize_t n, Buffers buffers) {
    ConnectionMessages& state = messagesOf(connection);
    if (!connection.plain()) {
        if (holdsSlot(connection)) state.receivedWire = true;
        callsReceived(connection, n, buffers);  // in the totals, and for a request to be reported
        return markDirty(connection.slot.state);
    }
    addTo(connection.slot.result.total.bytesReceived, static_cast<std::uint32_t>(n));
    if (holdsSlot(connection)) {
        const Messages messages = {connection, state};
        forEachPart(
            n, buffers, [&](Bytes part) { receivedText(messages, part); },
            [&](std::uint64_t bytes) { receivedUnseen(messages, bytes); });
    }
    markDirty(connection.slot.state);
}

void messagesSent(const Connection& connection, ssize_t n, Buffers buffers) {
    ConnectionMessages& state = messagesOf(connection);
    if (state.reported) return callsSent(connection, n, buffers);
    if (n < 1) return;
    addTo(connection.slot.result.total.bytesSent, static_cast<std::uint32_t>(n));
    if (connection.plain() && holdsSlot(connection)) {
        const Messages messages = {connection, state};
        forEachPart(
            n, buffers, [&](Bytes part) { sentText(messages, part); },
            [&](std::uint64_t bytes) { sentUnseen(messages, bytes); });
    }
    markDirty(connection.slot.state);
}

void messagesClosed(const Connection& connection) {
    const Slot slot = connection.slot;
    ConnectionMessages& state = messagesOf(connection);
    if (!connection.plain() && state.tlsObject == nullptr) return unreadClosed(connection);
    addTo(slot.result.total.openConnections, -1);
    if (!holdsSlot(connection)) return;
    const Messages messages = {connection, state};
    if (isHttp2(state)) {
        http2Closed(messages);
    } else {
        http1Closed(messages);
    }
    if (state.firstSite >= 0) addTo(siteCounters(slot, state.firstSite).openConnections, -1);
    state.protocol = Protocol::kUnknown;
    state.descriptor = -1;
    state.tlsObject = nullptr;
}

bool readPlaintextOf(const Connection& connection, const void* tlsObject) {
    ConnectionMessages& state = messagesOf(connection);
    if (connection.plain() || !holdsSlot(connection) || !state.receivedWire) return false;
    if (state.tlsObject == nullptr) state.tlsObject = tlsObject;
    return state.tlsObject == tlsObject;
}

bool isReadThrough(const Connection& connection, const void* tlsObject) {
    return messagesOf(connection).tlsObject == tlsObject && !connection.plain() &&
           holdsSlot(connection);
}

void plaintextReceived(const Connection& connection, Bytes text) {
    receivedText({connection, messagesOf(connection)}, text);
    markDirty(connection.slot.state);
}

void plaintextSent(const Connection& connection, Bytes text) {
    sentText({connection, messagesOf(connection)}, text);
    markDirty(connection.slot.state);
}

void unseenPlaintextSent(const Connection& connection, std::uint64_t n) {
    sentUnseen({connection, messagesOf(connection)}, n);
    markDirty(connection.slot.state);
}

}  // namespace tolvane
