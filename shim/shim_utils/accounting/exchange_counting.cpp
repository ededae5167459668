#include "shim_utils/accounting/exchange_counting.h"

#include <cstring>
#include <ctime>

#include "shim_utils/accounting/counters.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/configuration/pattern_index.h"
#include "shim_utils/matching/site_match.h"

namespace tolvane {
namespace {

int siteOf(const Configuration& config, Bytes host, ConnectionKind kind, LastHost& last) {
    if (host.length == last.length && last.length != 0 && last.version == config.info.version &&
        std::memcmp(host.data, last.text, host.length) == 0) {
        return last.site;
    }
    const int s = getMatchWebSite(config, host, kind);
    last.length = 0;
    if (s >= 0 && host.length <= sizeof last.text) {
        std::memcpy(last.text, host.data, host.length);
        last.length = static_cast<std::uint16_t>(host.length);
        last.site = static_cast<std::int16_t>(s);
        last.version = config.info.version;
    }
    return s;
}

Credit match(const Messages& messages, Bytes host, Bytes url) {
    SlotWork work(messages.slot().state);  // the configuration stays in force meanwhile
    const Configuration& config = configInfo();
    const ConnectionKind kind = messages.connection.plain() ? kPlainRequest : kReportedRequest;
    const int s = siteOf(config, host, kind, messages.state.lastHost);
    if (s < 0 || url.length == 0) return {static_cast<std::int16_t>(s), 0};
    return {static_cast<std::int16_t>(s),
            static_cast<std::uint16_t>(findPatterns(config.patterns, config.info, s, url))};
}

// Counts the connection for the site of its first request that has a site.
void countConnection(ConnectionMessages& state, CounterBlock& site, int s) {
    if (state.firstSite >= 0) return;
    state.firstSite = static_cast<std::int16_t>(s);
    addTo(site.connections, 1U);
    addTo(site.openConnections, 1);
}

void countRequest(const Messages& messages, const Credit& credit) {
    const Slot slot = messages.slot();
    addTo(slot.result.total.requests, 1U);
    if (credit.site < 0) return;
    CounterBlock& site = siteCounters(slot, credit.site);
    countConnection(messages.state, site, credit.site);
    addTo(site.requests, 1U);
    forEachCategory(slot, credit.site, credit.categories, [](CategoryCounters& category) {
        addTo(category.inProgress, 1);
        addTo(category.requests, 1U);
    });
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

}  // namespace

std::int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

Exchange beginExchange(const Messages& messages, Bytes host, Bytes url) {
    messages.connection.descriptor.owner.store(processGeneration, kRelaxed);
    if (webServerType == kApacheProcesses) checkLatestConfigInfo();
    Exchange exchange;
    exchange.credit = match(messages, host, url);
    if (exchange.credit.categories != 0) {
        exchange.start = messages.state.requestStart != 0 ? messages.state.requestStart : now();
    }
    countRequest(messages, exchange.credit);
    return exchange;
}

void countResponse(const Messages& messages, Exchange& exchange, int status) {
    const Slot slot = messages.slot();
    const int statusClass = status / 100;
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

void countDropped(Slot slot, Exchange& exchange) {
    if (exchange.answered) return;
    exchange.answered = true;
    const Credit& credit = exchange.credit;
    addTo(slot.result.total.droppedRequests, 1U);
    if (credit.site < 0) return;
    addTo(siteCounters(slot, credit.site).droppedRequests, 1U);
    forEachCategory(slot, credit.site, credit.categories, [](CategoryCounters& category) {
        lowerInProgress(category);
        addTo(category.droppedRequests, 1U);
    });
}

void abandon(Slot slot, const Exchange& exchange) {
    if (exchange.answered) return;
    forEachCategory(slot, exchange.credit.site, exchange.credit.categories,
                    [](CategoryCounters& category) { lowerInProgress(category); });
}

void addReceivedBytes(Slot slot, const Credit& credit, std::uint64_t bytes) {
    if (credit.site < 0 || bytes == 0) return;
    addTo(siteCounters(slot, credit.site).bytesReceived, static_cast<std::uint32_t>(bytes));
}

void addSentBytes(Slot slot, const Credit& credit, std::uint64_t bytes) {
    if (credit.site < 0 || bytes == 0) return;
    const auto n = static_cast<std::uint32_t>(bytes);
    addTo(siteCounters(slot, credit.site).bytesSent, n);
    forEachCategory(slot, credit.site, credit.categories,
                    [n](CategoryCounters& category) { addTo(category.bytesSent, n); });
}

}  // namespace tolvane
