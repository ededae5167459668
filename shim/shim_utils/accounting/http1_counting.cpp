#include "shim_utils/accounting/http1_counting.h"

#include "shim_utils/accounting/counters.h"
#include "shim_utils/accounting/http2_counting.h"

namespace tolvane {
namespace {

// ------------------------------------------------------------------- receiving

// The bytes of the request that is being received, once its site is known.
void creditRequest(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    addReceivedBytes(messages.slot(), state.receiving, state.uncreditedBytes);
    state.uncreditedBytes = 0;
}

// Counts the request that is being received and makes it an exchange.
void admit(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    if (state.admitted) return;
    if (state.exchanges.full()) return stopHttp1(messages);
    const Target target = splitTarget(state.texts.target.text());
    const Bytes host = target.host.data != nullptr ? target.host : state.texts.host.text();
    Exchange exchange = beginExchange(messages, host, target.url);
    exchange.method = state.requests.method();
    state.exchanges.push(exchange);
    state.receiving = exchange.credit;
    state.admitted = true;
    creditRequest(messages);
}

void beginRequest(ConnectionMessages& state) {
    state.requestStart = 0;
    state.uncreditedBytes = 0;
    state.receiving = {};
    state.admitted = false;
}

// ------------------------------------------------------------------- sending

void beginResponse(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    // A server may answer a request before its head is complete.
    if (state.exchanges.empty() && state.requests.hasLine()) admit(messages);
    state.answers = !state.exchanges.empty();
    state.responseStart = 0;
    messages.connection.descriptor.owner.store(processGeneration, kRelaxed);
}

// The response to the first exchange ends HTTP/1.x on the connection.
void switchProtocol(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    Exchange exchange = state.exchanges.front();
    state.exchanges.pop();
    stopHttp1(messages);
    if (state.responses.upgradesToHttp2()) {
        upgradeToHttp2(messages, exchange);
    } else {
        countResponse(messages, exchange, state.responses.status());
    }
}

// Handles an event of the response reader.
void responded(const Messages& messages, ResponseReader::Event event) {
    using Event = ResponseReader::Event;
    ConnectionMessages& state = messages.state;
    if (event == Event::kNotHttp) return stopHttp1(messages);
    if (event == Event::kInterim) state.responseStart = 0;
    if (!state.answers || event == Event::kMore || event == Event::kInterim) return;
    Exchange& exchange = state.exchanges.front();
    if (event == Event::kMessage && state.responses.switchesProtocol(exchange.method)) {
        return switchProtocol(messages);
    }
    if (event != Event::kEnd) countResponse(messages, exchange, state.responses.status());
    if (event != Event::kHead) state.exchanges.pop();
}

// The response to the first exchange may have begun.
void endFirstExchange(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    if (!state.answers || !state.responses.begun() || state.exchanges.empty()) return;
    Exchange& exchange = state.exchanges.front();
    if (!exchange.answered && state.responses.hasFinalStatus()) {
        countResponse(messages, exchange, state.responses.status());
    }
}

}  // namespace

void http1Received(const Messages& messages, Bytes part) {
    ConnectionMessages& state = messages.state;
    const char* p = part.data;
    const char* const end = p + part.length;
    while (!state.requests.stopped()) {
        state.requests.skipEmptyLines(p, end);
        if (p == end) break;
        if (!state.requests.begun()) beginRequest(state);
        const char* const from = p;
        const RequestReader::Event event = state.requests.read(p, end, state.texts);
        if (event == RequestReader::Event::kNotHttp) return;
        state.uncreditedBytes += static_cast<std::uint64_t>(p - from);
        if (state.admitted) {
            creditRequest(messages);
        } else if (event != RequestReader::Event::kMore) {
            admit(messages);
        }
    }
    if (state.requests.begun() && !state.admitted && state.requestStart == 0) {
        state.requestStart = now();
    }
}

void http1ReceivedUnseen(const Messages& messages, std::uint64_t n) {
    ConnectionMessages& state = messages.state;
    std::uint64_t behind = n;
    if (state.requests.skip(behind) == RequestReader::Event::kNotHttp) return;
    state.uncreditedBytes += n - behind;
    creditRequest(messages);
    if (behind != 0) state.requests.stop();
}

const char* http1Sent(const Messages& messages, Bytes part) {
    ConnectionMessages& state = messages.state;
    const char* p = part.data;
    const char* const end = p + part.length;
    while (p != end && !state.responses.stopped()) {
        if (!state.responses.begun()) beginResponse(messages);
        const Exchange exchange = state.answers ? state.exchanges.front() : Exchange{};
        const char* const from = p;
        const ResponseReader::Event event = state.responses.read(p, end, exchange.method);
        responded(messages, event);
        if (event == ResponseReader::Event::kNotHttp) return end;
        if (state.responses.stopped()) stopHttp1(messages);  // the body in sight is none
        addSentBytes(messages.slot(), exchange.credit, static_cast<std::uint64_t>(p - from));
    }
    if (state.protocol == Protocol::kUpgraded) return p;
    if (state.answers && state.responses.begun() && state.responseStart == 0) {
        if (state.exchanges.front().start != 0) state.responseStart = now();
    }
    return end;
}

void http1SentUnseen(const Messages& messages, std::uint64_t n) {
    ConnectionMessages& state = messages.state;
    if (state.responses.stopped()) return;
    const bool answers = state.responses.begun() && state.answers;
    const Credit credit = answers ? state.exchanges.front().credit : Credit{};
    std::uint64_t behind = n;
    const ResponseReader::Event event = state.responses.skip(behind);
    responded(messages, event);
    if (event == ResponseReader::Event::kNotHttp) return;
    if (behind != 0) stopHttp1(messages);
    addSentBytes(messages.slot(), credit, n - behind);
}

void stopHttp1(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    state.requests.stop();
    state.responses.stop();
    for (; !state.exchanges.empty(); state.exchanges.pop()) {
        abandon(messages.slot(), state.exchanges.front());
    }
}

void http1Closed(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    if (state.requests.hasLine()) admit(messages);
    endFirstExchange(messages);
    for (; !state.exchanges.empty(); state.exchanges.pop()) {
        countDropped(messages.slot(), state.exchanges.front());
    }
}

}  // namespace tolvane
