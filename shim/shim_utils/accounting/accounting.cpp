#include "shim_utils/accounting/accounting.h"

#include <sys/time.h>

#include "shim_utils/accounting/counters.h"
#include "shim_utils/accounting/counting.h"
#include "shim_utils/http/request_parser.h"
#include "shim_utils/matching/url_categories.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/slots/exchanges.h"

namespace tolvane {
namespace {

// Calls `visit` with the counters of each category that the request matched.
template <typename Visit>
void forEachMatched(Slot slot, Visit visit) {
    const RequestInfo& request = slot.state.requestInfo;
    for (int i = 0; i < request.numMatched; ++i) {
        visit(slot.result.category[request.siteIndex][request.matched[i]]);
    }
}

void timeOfDay(std::int32_t& seconds, std::int32_t& microseconds) {
    timeval now;
    gettimeofday(&now, nullptr);
    seconds = static_cast<std::int32_t>(now.tv_sec);
    microseconds = static_cast<std::int32_t>(now.tv_usec);
}

std::int32_t wrappingDifference(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

// A request whose connection ends without a response.
void countDropped(Slot slot) {
    addTo(slot.result.total.droppedRequests, 1U);
    int s = slot.state.requestInfo.siteIndex;
    if (s < 0) return;
    addTo(siteCounters(slot, s).droppedRequests, 1U);
    forEachMatched(slot, [](CategoryCounters& category) {
        lowerInProgress(category);
        addTo(category.droppedRequests, 1U);
    });
}

void addSentBytes(Slot slot, std::uint32_t n) {
    addTo(slot.result.total.bytesSent, n);
    int s = slot.state.requestInfo.siteIndex;
    if (s < 0) return;
    addTo(siteCounters(slot, s).bytesSent, n);
    forEachMatched(slot, [n](CategoryCounters& category) { addTo(category.bytesSent, n); });
}

// Handles the first data of a response. Counts the response if the text begins
// with a status line.
void startResponse(const Connection& connection, Bytes text) {
    connection.descriptor.seenHttpResponseHdr.store(1, kRelaxed);
    if (!connection.plain() || text.data == nullptr || text.length == 0) return;
    connection.descriptor.owner.store(processGeneration, kRelaxed);
    double seconds = responseTime(connection.slot.state.requestInfo);
    if (!beginsWithStatusLine(text)) return;
    ResponseStatus response = parseHttpWriteHeader(text);
    countResponse(connection.slot,
                  response.overrideCode != 0 ? response.overrideCode : response.status, seconds);
}

}  // namespace

double diffTime(std::int32_t startSec, std::int32_t startUsec, std::int32_t endSec,
                std::int32_t endUsec) {
    double seconds = static_cast<double>(wrappingDifference(endSec, startSec)) +
                     static_cast<double>(wrappingDifference(endUsec, startUsec)) / 1000000.0;
    if (seconds < 0.0) {
        printErrorMsg("Response Time < 0");
        return 0.0;
    }
    return seconds;
}

double responseTime(const RequestInfo& request) {
    if (request.numMatched <= 0) return 0.0;
    std::int32_t seconds;
    std::int32_t microseconds;
    timeOfDay(seconds, microseconds);
    return diffTime(request.startSec, request.startUsec, seconds, microseconds);
}

int startRequest(const Connection& connection, Bytes host, Bytes url, ConnectionKind kind) {
    Slot slot = connection.slot;
    RequestInfo& request = slot.state.requestInfo;
    SlotWork work(slot.state);  // keeps the configuration valid
    const Configuration& config = configInfo();

    request.siteIndex = getMatchWebSite(config, host, kind);
    int s = request.siteIndex;
    if (s < 0) return s;
    CounterBlock& site = siteCounters(slot, s);
    if (connection.descriptor.seenHttpConnection.load(kRelaxed) == 1) {
        connection.descriptor.seenHttpConnection.store(0, kRelaxed);
        addTo(site.connections, 1U);
        addTo(site.openConnections, 1);
    }
    addTo(site.requests, 1U);
    matchCategory(config, url, request);
    forEachMatched(slot, [](CategoryCounters& category) {
        addTo(category.inProgress, 1);
        addTo(category.requests, 1U);
    });
    if (request.numMatched > 0) timeOfDay(request.startSec, request.startUsec);
    return s;
}

void countReceived(const Connection& connection, ssize_t n, Bytes text) {
    Slot slot = connection.slot;
    auto bytes = static_cast<std::uint32_t>(n);
    if (!connection.plain()) {
        slot.state.requestInfo.pendingBytes += bytes;
        addTo(slot.result.total.bytesReceived, bytes);
        return;
    }
    DescriptorState& descriptor = connection.descriptor;
    descriptor.seenHttpResponseHdr.store(0, kRelaxed);
    descriptor.seenWriteOnce.store(0, kRelaxed);
    addTo(slot.result.total.bytesReceived, bytes);

    int s = slot.state.requestInfo.siteIndex;
    if (descriptor.seenHttpRequestHdr.load(kRelaxed) == 0) {
        descriptor.seenHttpRequestHdr.store(1, kRelaxed);
        descriptor.owner.store(processGeneration, kRelaxed);
        addTo(slot.result.total.requests, 1U);
        // A request without a text matches no site, so its bytes belong to no site.
        s = -1;
        if (text.data != nullptr && text.length > 0) {
            HeadTexts fields = parseHttpHeader(text);
            s = startRequest(connection, fields.host, fields.url, kPlainRequest);
        }
    }
    if (s >= 0) addTo(siteCounters(slot, s).bytesReceived, bytes);
    markDirty(slot.state);
}

void countSent(const Connection& connection, ssize_t n, Bytes text) {
    DescriptorState& descriptor = connection.descriptor;
    bool begins = descriptor.seenHttpResponseHdr.load(kRelaxed) == 0;
    if (begins) {
        descriptor.seenHttpRequestHdr.store(0, kRelaxed);
        if (connection.plain() && n >= 0) descriptor.seenWriteOnce.store(1, kRelaxed);
    }
    if (n > 0) {
        addSentBytes(connection.slot, static_cast<std::uint32_t>(n));
        if (begins) startResponse(connection, text);
    }
    if (begins) markDirty(connection.slot.state);
}

void countResponse(Slot slot, int code, double seconds) {
    const int statusClass = code / 100;
    countStatus(slot.result.total, statusClass);
    int s = slot.state.requestInfo.siteIndex;
    if (s < 0) return;
    countStatus(siteCounters(slot, s), statusClass);
    SlotWork work(slot.state);
    forEachMatched(slot, [&](CategoryCounters& category) {
        if (statusClass == 4 || statusClass == 5) addTo(category.errors, 1U);
        lowerInProgress(category);
        if (statusClass <= 3) addSeconds(category, seconds);
    });
}

void countAccepted(int fd, SocketKind kind) {
    DescriptorState* descriptor = descriptorState(fd);
    if (descriptor == nullptr) return;
    descriptor->typeOfSocket.store(kind, kRelaxed);
    descriptor->seenHttpRequestHdr.store(0, kRelaxed);
    descriptor->seenHttpResponseHdr.store(0, kRelaxed);
    descriptor->seenHttpConnection.store(1, kRelaxed);
    descriptor->owner.store(processGeneration, kRelaxed);
    if (webServerType == kApacheProcesses && fd >= trackedLimit.load(kRelaxed)) {
        trackedLimit.store(fd + 1, kRelaxed);  // threaded servers: see allocateSlot
    }
    int index = slotOf(webServerType, fd, *descriptor);
    if (index < 0) return;
    Slot slot = slotAt(index);
    addTo(slot.result.total.connections, 1U);
    addTo(slot.result.total.openConnections, 1);
    counting->accepted({*descriptor, slot});
    markDirty(slot.state);
}

void forgetDescriptor(int fd) {
    DescriptorState* descriptor = descriptorState(fd);
    if (descriptor == nullptr) return;
    descriptor->typeOfSocket.store(kUntracked, kRelaxed);
    descriptor->seenHttpConnection.store(0, kRelaxed);
}

bool countClosed(int fd) {
    DescriptorState* descriptor = descriptorState(fd);
    if (descriptor == nullptr) return false;
    descriptor->seenHttpConnection.store(0, kRelaxed);
    if (descriptor->typeOfSocket.load(kRelaxed) == kUntracked) return false;
    // The process that serves a connection counts its close. A process that
    // inherited the connection and never served it closes only a descriptor.
    bool ours = descriptor->owner.load(kRelaxed) == processGeneration;
    int index = ours ? slotOf(webServerType, fd, *descriptor) : -1;
    if (index >= 0) {
        Slot slot = slotAt(index);
        counting->closed({*descriptor, slot});
        markDirty(slot.state);
        if (webServerType != kApacheProcesses) RELEASEINDEX(fd);
    }
    descriptor->typeOfSocket.store(kUntracked, kRelaxed);
    return index >= 0;
}

void countReported(const Connection& connection, Bytes host, Bytes url) {
    DescriptorState& descriptor = connection.descriptor;
    Slot slot = connection.slot;
    descriptor.seenHttpResponseHdr.store(0, kRelaxed);
    descriptor.seenWriteOnce.store(0, kRelaxed);
    descriptor.seenHttpRequestHdr.store(1, kRelaxed);
    if (countsMessages) slot.state.messages->reported = true;
    addTo(slot.result.total.requests, 1U);
    int s = startRequest(connection, host, url, kReportedRequest);
    if (s >= 0) {
        addTo(siteCounters(slot, s).bytesReceived, slot.state.requestInfo.pendingBytes);
    }
    slot.state.requestInfo.pendingBytes = 0;
    markDirty(slot.state);
}

void callsAccepted(const Connection&) {}

void callsReceived(const Connection& connection, ssize_t n, Buffers buffers) {
    countReceived(connection, n, firstText(buffers, n));
}

void callsSent(const Connection& connection, ssize_t n, Buffers buffers) {
    countSent(connection, n, firstText(buffers, n));
}

void callsClosed(const Connection& connection) {
    const Slot slot = connection.slot;
    addTo(slot.result.total.openConnections, -1);
    if (connection.descriptor.seenWriteOnce.load(kRelaxed) == 0) countDropped(slot);
    const int s = slot.state.requestInfo.siteIndex;
    if (s >= 0) addTo(siteCounters(slot, s).openConnections, -1);
}

}  // namespace tolvane
