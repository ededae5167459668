// The exported entry points that report requests and responses on SSL connections.
#include <cstring>

#include "shim_utils/accounting/accounting.h"
#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/slots/exchanges.h"
#include "shim_utils/slots/serving_thread.h"
#include "tolvane/entry_points.h"

using namespace tolvane;

namespace {

bool slotExists(int slot) {
    return slot >= 0 && slot < currMaxSockets.load(std::memory_order_acquire);
}

// Whether the requests of the slot's connection are read from its plaintext.
bool isRead(int slot) {
    const ConnectionMessages* messages = slotAt(slot).state.messages;
    return messages != nullptr && messages->tlsObject != nullptr;
}

// A negative length means a NUL-terminated text.
Bytes reportedText(const char* text, int length) {
    if (text == nullptr) return {};
    return {text, length < 0 ? std::strlen(text) : static_cast<std::size_t>(length)};
}

Bytes upToNul(Bytes text) {
    return {text.data, positionOf('\0', text.data, text.length)};
}

}  // namespace

void updateRequestResults(int slot, const char* host, int hostLength, const char* url,
                          int urlLength, int descriptor) {
    DescriptorState* state = descriptorState(descriptor);
    if (!slotExists(slot) || state == nullptr || !mayServe() || isRead(slot)) return;
    ErrnoGuard guard;
    countReported({*state, slotAt(slot)}, upToNul(reportedText(host, hostLength)),
                  reportedText(url, urlLength));
}

void updateResponseResults(int slot, int statusCode, int overrideCode) {
    if (!slotExists(slot) || !mayServe() || isRead(slot)) return;
    ErrnoGuard guard;
    Slot reported = slotAt(slot);
    const RequestInfo& request = reported.state.requestInfo;
    double seconds = request.siteIndex >= 0 ? responseTime(request) : 0.0;
    countResponse(reported, overrideCode != 0 ? overrideCode : statusCode, seconds);
}
