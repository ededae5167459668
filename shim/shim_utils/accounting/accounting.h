// What is counted, and when: the four steps in the life of a request, and the
// two ends of a connection. Each stands here once; the wrappers and the
// exported entry points only call them.
#pragma once

#include <sys/types.h>

#include "shim_utils/matching/site_match.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/slots/connection_slots.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// One tracked connection: its descriptor's flags and its slot. Handed on by
// reference: a copy of what has just been put together waits until it is written.
struct Connection {
    DescriptorState& descriptor;
    Slot slot;

    bool plain() const { return descriptor.typeOfSocket.load(std::memory_order_relaxed) == kPlain; }
};

// Request start: matches the request to a site and categories and counts it there.
// Returns the site's index, -1: none. The caller counts it in the totals.
int startRequest(const Connection& connection, Bytes host, Bytes url, ConnectionKind kind);

// A request on an SSL connection, as a caller outside the shim reports it: the
// bytes received since the last one are credited to its site.
void countReported(const Connection& connection, Bytes host, Bytes url);

// Received bytes: `n` > 0 bytes were read. `text` is what may be looked at of
// them, null when nothing may.
void countReceived(const Connection& connection, ssize_t n, Bytes text);

// Sent bytes: a write returned `n`, an error included. `text` is what may be
// looked at of what was written, null when nothing may.
void countSent(const Connection& connection, ssize_t n, Bytes text);

// Response: counts the status and ends the request. `seconds` is the response
// time, used only when the request matched a category.
void countResponse(Slot slot, int code, double seconds);

// The response time of the slot's request if its response starts now; 0 when
// the request matched no category and so has no start time.
double responseTime(const RequestInfo& request);

// The difference of two times of day in seconds; a negative one is logged and
// counts as 0.
double diffTime(std::int32_t startSec, std::int32_t startUsec, std::int32_t endSec,
                std::int32_t endUsec);

// A connection of `kind` was accepted as `fd`.
void countAccepted(int fd, SocketKind kind);

// `fd` became something that is not counted: whatever is known of an earlier
// connection of that number ends without being counted.
void forgetDescriptor(int fd);

// Descriptor `fd` is about to be closed. Nothing happens unless it is a tracked
// connection.
void countClosed(int fd);

}  // namespace tolvane
