// Counting by HTTP messages.
#include <cstring>
#include <ctime>

#include "shim_utils/accounting/counters.h"
#include "shim_utils/accounting/counting.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/matching/site_match.h"
#include "shim_utils/matching/url_categories.h"
#include "shim_utils/slots/exchanges.h"

namespace tolvane {
namespace {

std::int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

int descriptorOf(const Connection& connection) {
    return static_cast<int>(&connection.descriptor - descriptors);
}

// A connection and its messages.
struct Messages {
    const Connection& connection;
    ConnectionMessages& state;

    Slot slot() const { return connection.slot; }
};

// False for a connection whose messages are not read: one that is not plain, and an
// earlier one in a process that has a single slot.
bool readsMessages(const Connection& connection) {
    return connection.plain() &&
           connection.slot.state.messages->descriptor == descriptorOf(connection);
}

// ----------------------------------------------------------------- exchanges

void endProgress(Slot slot, const Credit& credit) {
    forEachCategory(slot, credit.site, credit.categories,
                    [](CategoryCounters& category) { lowerInProgress(category); });
}

void addReceivedBytes(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    const auto bytes = static_cast<std::uint32_t>(state.uncreditedBytes);
    state.uncreditedBytes = 0;
    const int s = state.receiving.site;
    if (s >= 0 && bytes != 0) addTo(siteCounters(messages.slot(), s).bytesReceived, bytes);
}

void addSentBytes(Slot slot, const Credit& credit, std::uint32_t bytes) {
    if (credit.site < 0 || bytes == 0) return;
    addTo(siteCounters(slot, credit.site).bytesSent, bytes);
    forEachCategory(slot, credit.site, credit.categories,
                    [bytes](CategoryCounters& category) { addTo(category.bytesSent, bytes); });
}

// Nothing that follows on the connection is a message. Its requests in flight get no
// response that could be read, and are no drops.
void stopReading(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    state.requests.stop();
    state.responses.stop();
    for (; !state.exchanges.empty(); state.exchanges.pop()) {
        const Exchange& exchange = state.exchanges.front();
        if (!exchange.answered) endProgress(messages.slot(), exchange.credit);
    }
}

int siteOf(const Configuration& config, Bytes host, LastHost& last) {
    if (host.length == last.length && last.length != 0 && last.version == config.info.version &&
        std::memcmp(host.data, last.text, host.length) == 0) {
        return last.site;
    }
    const int s = getMatchWebSite(config, host, kPlainRequest);
    last.length = 0;
    if (s >= 0 && host.length <= sizeof last.text) {
        std::memcpy(last.text, host.data, host.length);
        last.length = static_cast<std::uint16_t>(host.length);
        last.site = static_cast<std::int16_t>(s);
        last.version = config.info.version;
    }
    return s;
}

// The site and categories of the request that is being received.
Credit match(const Messages& messages) {
    const RequestTexts& texts = messages.state.texts;
    const Target target = splitTarget(texts.target.text());
    const Bytes host = target.host.data != nullptr ? target.host : texts.host.text();
    SlotWork work(messages.slot().state);  // the configuration stays in force meanwhile
    const Configuration& config = configInfo();
    const int s = siteOf(config, host, messages.state.lastHost);
    if (s < 0 || target.url.length == 0) return {static_cast<std::int16_t>(s), 0};
    // A target has no NUL, which would end the URL.
    return {static_cast<std::int16_t>(s),
            static_cast<std::uint16_t>(findPatterns(config.patterns, config.info, s, target.url))};
}

void countConnection(const Messages& messages, CounterBlock& site, int s) {
    if (messages.state.firstSite >= 0) return;
    messages.state.firstSite = static_cast<std::int16_t>(s);
    addTo(site.connections, 1U);
    addTo(site.openConnections, 1);
}

void countRequest(const Messages& messages, const Credit& credit) {
    const Slot slot = messages.slot();
    addTo(slot.result.total.requests, 1U);
    if (credit.site < 0) return;
    CounterBlock& site = siteCounters(slot, credit.site);
    countConnection(messages, site, credit.site);
    addTo(site.requests, 1U);
    forEachCategory(slot, credit.site, credit.categories, [](CategoryCounters& category) {
        addTo(category.inProgress, 1);
        addTo(category.requests, 1U);
    });
}

// Counts the request that is being received and makes it an exchange.
void admit(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    if (state.admitted) return;
    if (state.exchanges.full()) {
        stopReading(messages);
        return;
    }
    messages.connection.descriptor.owner.store(processGeneration, kRelaxed);
    if (webServerType == kApacheProcesses) checkLatestConfigInfo();
    Exchange exchange;
    exchange.credit = match(messages);
    exchange.method = state.requests.method();
    if (exchange.credit.categories != 0) {
        exchange.start = state.requestStart != 0 ? state.requestStart : now();
    }
    countRequest(messages, exchange.credit);
    state.exchanges.push(exchange);
    state.receiving = exchange.credit;
    state.admitted = true;
    addReceivedBytes(messages);
}

void addResponseTime(const Messages& messages, const Exchange& exchange) {
    const std::int64_t begun =
        messages.state.responseStart != 0 ? messages.state.responseStart : now();
    const double seconds =
        begun > exchange.start ? static_cast<double>(begun - exchange.start) / 1e9 : 0.0;
    SlotWork work(messages.slot().state);
    forEachCategory(messages.slot(), exchange.credit.site, exchange.credit.categories,
                    [seconds](CategoryCounters& category) { addSeconds(category, seconds); });
}

// Counts the response to `exchange` by its status.
void countResponse(const Messages& messages, Exchange& exchange) {
    const Slot slot = messages.slot();
    const int statusClass = messages.state.responses.status() / 100;
    const bool error = statusClass == 4 || statusClass == 5;
    exchange.answered = true;
    countStatus(slot.result.total, statusClass);
    const Credit& credit = exchange.credit;
    if (credit.site < 0) return;
    countStatus(siteCounters(slot, credit.site), statusClass);
    forEachCategory(slot, credit.site, credit.categories, [error](CategoryCounters& category) {
        if (error) addTo(category.errors, 1U);
        lowerInProgress(category);
    });
    if (exchange.start != 0 && statusClass <= 3) addResponseTime(messages, exchange);
}

void countDropped(Slot slot, const Credit& credit) {
    addTo(slot.result.total.droppedRequests, 1U);
    if (credit.site < 0) return;
    addTo(siteCounters(slot, credit.site).droppedRequests, 1U);
    forEachCategory(slot, credit.site, credit.categories, [](CategoryCounters& category) {
        lowerInProgress(category);
        addTo(category.droppedRequests, 1U);
    });
}

// ------------------------------------------------------------------- receiving

void beginRequest(ConnectionMessages& state) {
    state.requestStart = 0;
    state.uncreditedBytes = 0;
    state.receiving = {};
    state.admitted = false;
}

void readRequests(const Messages& messages, Bytes part) {
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
            addReceivedBytes(messages);
        } else if (event != RequestReader::Event::kMore) {
            admit(messages);
        }
    }
    if (state.requests.begun() && !state.admitted && state.requestStart == 0) {
        state.requestStart = now();
    }
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

// Handles an event of the response reader. False: nothing that follows is a message.
bool responded(const Messages& messages, ResponseReader::Event event) {
    using Event = ResponseReader::Event;
    ConnectionMessages& state = messages.state;
    if (event == Event::kInterim) state.responseStart = 0;
    if (!state.answers) return !state.responses.stopped();
    Exchange& exchange = state.exchanges.front();
    if (event == Event::kHead || event == Event::kMessage) countResponse(messages, exchange);
    const bool complete = event == Event::kMessage || event == Event::kEnd;
    const bool switches =
        event == Event::kMessage && state.responses.switchesProtocol(exchange.method);
    if (complete) state.exchanges.pop();
    return !state.responses.stopped() && !switches;
}

void readResponses(const Messages& messages, Bytes part) {
    ConnectionMessages& state = messages.state;
    const char* p = part.data;
    const char* const end = p + part.length;
    while (p != end && !state.responses.stopped()) {
        if (!state.responses.begun()) beginResponse(messages);
        const Exchange exchange = state.answers ? state.exchanges.front() : Exchange{};
        const char* const from = p;
        const ResponseReader::Event event = state.responses.read(p, end, exchange.method);
        if (!responded(messages, event)) stopReading(messages);
        if (event == ResponseReader::Event::kNotHttp) return;
        addSentBytes(messages.slot(), exchange.credit, static_cast<std::uint32_t>(p - from));
    }
    if (state.answers && state.responses.begun() && state.responseStart == 0) {
        if (state.exchanges.front().start != 0) state.responseStart = now();
    }
}

// `n` bytes of unknown content were sent.
void skipSent(const Messages& messages, std::uint64_t n) {
    ConnectionMessages& state = messages.state;
    if (state.responses.stopped()) return;
    const Credit credit =
        state.responses.begun() && state.answers ? state.exchanges.front().credit : Credit{};
    std::uint64_t behind = n;
    const ResponseReader::Event event = state.responses.skip(behind);
    if (!responded(messages, event) || behind != 0) stopReading(messages);
    if (event == ResponseReader::Event::kNotHttp) return;
    addSentBytes(messages.slot(), credit, static_cast<std::uint32_t>(n - behind));
}

void skipReceived(const Messages& messages, std::uint64_t n) {
    ConnectionMessages& state = messages.state;
    std::uint64_t behind = n;
    if (state.requests.skip(behind) == RequestReader::Event::kNotHttp) return;
    state.uncreditedBytes += n - behind;
    addReceivedBytes(messages);
    if (behind != 0) state.requests.stop();
}

// Calls `read` with each part of a transfer of `n` bytes, and `skip` with the number
// of bytes of unknown content.
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

// The response to the first exchange may have begun.
void endFirstExchange(const Messages& messages) {
    ConnectionMessages& state = messages.state;
    if (!state.answers || !state.responses.begun() || state.exchanges.empty()) return;
    Exchange& exchange = state.exchanges.front();
    if (!exchange.answered) {
        if (!state.responses.hasFinalStatus()) return;
        countResponse(messages, exchange);
    }
    state.exchanges.pop();
}

}  // namespace

void messagesAccepted(const Connection& connection) {
    ConnectionMessages& state = *connection.slot.state.messages;
    const Messages messages = {connection, state};
    stopReading(messages);  // of a connection whose close the shim did not see
    state.requests = RequestReader{};
    state.responses = ResponseReader{};
    state.answers = false;
    state.firstSite = -1;
    state.descriptor = connection.plain() ? descriptorOf(connection) : -1;
}

void messagesReceived(const Connection& connection, ssize_t n, Buffers buffers) {
    if (!connection.plain()) return callsReceived(connection, n, buffers);
    addTo(connection.slot.result.total.bytesReceived, static_cast<std::uint32_t>(n));
    if (readsMessages(connection)) {
        const Messages messages = {connection, *connection.slot.state.messages};
        forEachPart(
            n, buffers, [&](Bytes part) { readRequests(messages, part); },
            [&](std::uint64_t bytes) { skipReceived(messages, bytes); });
    }
    markDirty(connection.slot.state);
}

void messagesSent(const Connection& connection, ssize_t n, Buffers buffers) {
    if (!connection.plain()) return callsSent(connection, n, buffers);
    if (n < 1) return;
    addTo(connection.slot.result.total.bytesSent, static_cast<std::uint32_t>(n));
    if (readsMessages(connection)) {
        const Messages messages = {connection, *connection.slot.state.messages};
        forEachPart(
            n, buffers, [&](Bytes part) { readResponses(messages, part); },
            [&](std::uint64_t bytes) { skipSent(messages, bytes); });
    }
    markDirty(connection.slot.state);
}

void messagesClosed(const Connection& connection) {
    if (!connection.plain()) return callsClosed(connection);
    const Slot slot = connection.slot;
    addTo(slot.result.total.openConnections, -1);
    if (!readsMessages(connection)) return;
    ConnectionMessages& state = *slot.state.messages;
    const Messages messages = {connection, state};
    if (state.requests.hasLine()) admit(messages);
    endFirstExchange(messages);
    for (; !state.exchanges.empty(); state.exchanges.pop()) {
        countDropped(slot, state.exchanges.front().credit);
    }
    if (state.firstSite >= 0) addTo(siteCounters(slot, state.firstSite).openConnections, -1);
    state.descriptor = -1;
}

}  // namespace tolvane
