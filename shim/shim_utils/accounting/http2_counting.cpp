#include "shim_utils/accounting/http2_counting.h"

#include <atomic>

#include "shim_utils/accounting/counters.h"
#include "shim_utils/platform/log.h"

namespace tolvane {
namespace {

// The status of the response to a request that upgrades its connection.
constexpr int kSwitchingProtocols = 101;

// The connection of a request that was answered by 101 carries another protocol.
void endUpgrade(const Messages& messages) {
    if (messages.state.protocol != Protocol::kUpgraded) return;
    Exchange* exchange = messages.state.http2.streams.find(1);
    if (exchange != nullptr) countResponse(messages, *exchange, kSwitchingProtocols);
}

void logOnce() {
    static std::atomic<bool> logged{false};
    if (logged.exchange(true, kRelaxed)) return;
    printErrorMsg(
        "An HTTP/2 connection cannot be decoded: of such connections only bytes are counted");
}

// What follows cannot be read as HTTP/2.
void endReading(const Messages& messages) {
    if (messages.state.protocol == Protocol::kHttp2) logOnce();
    stopHttp2(messages);
}

// The connection has gone on in HTTP/2.
void confirmHttp2(ConnectionMessages& state) {
    if (state.protocol == Protocol::kUpgraded) state.responseStart = 0;  // of the 101
    state.protocol = Protocol::kHttp2;
}

// ----------------------------------------------------------------- receiving

void requested(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    const Http2RequestReader& reader = state.http2.requests();
    if (state.http2.streams.full()) return endReading(messages);
    const RequestFields& fields = reader.fields();
    const Exchange exchange = beginExchange(messages, fields.host(), fields.path());
    addReceivedBytes(messages.slot(), exchange.credit, reader.bytes());
    state.http2.streams.add(reader.stream(), exchange);
}

// Bytes of a request behind its head.
void continueRequest(const Messages& messages) {
    const Http2RequestReader& reader = messages.state.http2.requests();
    const Exchange* exchange = messages.state.http2.streams.find(reader.stream());
    if (exchange != nullptr) addReceivedBytes(messages.slot(), exchange->credit, reader.bytes());
}

// Either side has ended the stream before its end.
void resetStream(const Messages& messages, std::uint32_t stream) {
    StreamTable<Exchange>& streams = messages.state.http2.streams;
    Exchange* exchange = streams.find(stream);
    if (exchange == nullptr) return;
    countDropped(messages.slot(), *exchange);
    streams.remove(stream);
}

void received(const Messages& messages, Http2Event event) {
    ConnectionMessages& state = messages.state;
    const Http2RequestReader& reader = state.http2.requests();
    if (event == Http2Event::kMore) return;
    if (event == Http2Event::kNotHttp2) return endReading(messages);
    confirmHttp2(state);
    if (event == Http2Event::kReset) return resetStream(messages, reader.stream());
    if (event == Http2Event::kGoAway) return;
    if (event == Http2Event::kRequest) {
        requested(messages);
    } else {
        continueRequest(messages);
    }
    if (event != Http2Event::kData) state.requestStart = 0;
    if (reader.endsStream()) state.http2.streams.end(reader.stream(), StreamSide::kRequest);
}

// ------------------------------------------------------------------- sending

void sent(const Messages& messages, Http2Event event) {
    ConnectionMessages& state = messages.state;
    const Http2ResponseReader& reader = state.http2.responses();
    if (event == Http2Event::kMore) return;
    if (event == Http2Event::kNotHttp2) return endReading(messages);
    confirmHttp2(state);
    if (event == Http2Event::kReset) return resetStream(messages, reader.stream());
    if (event == Http2Event::kGoAway) return;
    Exchange* exchange = state.http2.streams.find(reader.stream());
    if (exchange == nullptr) return;
    addSentBytes(messages.slot(), exchange->credit, reader.bytes());
    if (event == Http2Event::kResponse && !exchange->answered) {
        messages.connection.descriptor.owner.store(processGeneration, kRelaxed);
        countResponse(messages, *exchange, reader.fields().status());
    }
    if (event != Http2Event::kData) state.responseStart = 0;
    if (!reader.endsStream()) return;
    countDropped(messages.slot(), *exchange);  // if it ends without a final response
    state.http2.streams.end(reader.stream(), StreamSide::kResponse);
}

}  // namespace

void beginHttp2(const Messages& messages, std::size_t prefaceBytes) {
    ConnectionMessages& state = messages.state;
    state.protocol = Protocol::kHttp2;
    state.http2.reset(prefaceBytes, false);
    state.requestStart = 0;
    state.responseStart = 0;
}

void upgradeToHttp2(const Messages& messages, const Exchange& exchange) {
    ConnectionMessages& state = messages.state;
    state.protocol = Protocol::kUpgraded;
    state.http2.reset(0, true);
    state.http2.streams.add(1, exchange);
    state.http2.streams.end(1, StreamSide::kRequest);
    state.requestStart = 0;
    if (state.responseStart == 0 && exchange.start != 0) state.responseStart = now();
}

void http2Received(const Messages& messages, Bytes part) {
    ConnectionMessages& state = messages.state;
    const char* p = part.data;
    const char* const end = p + part.length;
    while (p != end && !state.http2.requests().stopped()) {
        received(messages, state.http2.readRequests(p, end));
    }
    if (state.http2.requests().inHeaders() && state.requestStart == 0) state.requestStart = now();
}

void http2ReceivedUnseen(const Messages& messages, std::uint64_t n) {
    while (n != 0 && !messages.state.http2.requests().stopped()) {
        received(messages, messages.state.http2.skipRequests(n));
    }
}

void http2Sent(const Messages& messages, Bytes part) {
    ConnectionMessages& state = messages.state;
    const char* p = part.data;
    const char* const end = p + part.length;
    while (p != end && !state.http2.responses().stopped()) {
        sent(messages, state.http2.readResponses(p, end));
    }
    if (state.http2.responses().inHeaders() && state.responseStart == 0)
        state.responseStart = now();
}

void http2SentUnseen(const Messages& messages, std::uint64_t n) {
    while (n != 0 && !messages.state.http2.responses().stopped()) {
        sent(messages, messages.state.http2.skipResponses(n));
    }
}

void stopHttp2(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    endUpgrade(messages);
    state.http2.streams.forEach(
        [&](std::uint32_t, const Exchange& exchange) { abandon(messages.slot(), exchange); });
    state.http2.streams.reset();
    state.http2.stop();
}

void http2Closed(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    endUpgrade(messages);
    state.http2.streams.forEach(
        [&](std::uint32_t, Exchange& exchange) { countDropped(messages.slot(), exchange); });
    state.http2.streams.reset();
}

}  // namespace tolvane
