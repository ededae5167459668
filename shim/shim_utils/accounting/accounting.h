// What is counted, and when: the four steps of a request, and the accept and the
// close of a connection. The wrappers and the exported entry points call these
// functions and count nothing themselves.
#pragma once

#include <sys/types.h>

#include "shim_utils/matching/site_match.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/slots/connection_slots.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {

// A tracked connection: its descriptor's flags and its slot. Passed by reference,
// because a copy of a structure just built stalls until its stores complete.
struct Connection {
    DescriptorState& descriptor;
    Slot slot;

    bool plain() const { return descriptor.typeOfSocket.load(std::memory_order_relaxed) == kPlain; }
};

// Matches a request to a site and categories and counts it there. Returns the
// site's index, -1 if no site matches. The caller counts it in the totals.
int startRequest(const Connection& connection, Bytes host, Bytes url, ConnectionKind kind);

// Counts a request on an SSL connection that a caller outside the shim reports.
// Credits the bytes received since the previous request to its site.
void countReported(const Connection& connection, Bytes host, Bytes url);

// Counts `n` > 0 received bytes. `text` is the part of them that may be examined,
// null if no part may.
void countReceived(const Connection& connection, ssize_t n, Bytes text);

// Counts the result `n` of a write, also an error. `text` is the part of the
// written bytes that may be examined, null if no part may.
void countSent(const Connection& connection, ssize_t n, Bytes text);

// Counts the status of a response and ends the request. `seconds` is the response
// time, used only if the request matched a category.
void countResponse(Slot slot, int code, double seconds);

// The response time of `request` if its response starts now. 0 if the request
// matched no category, because it then has no start time.
double responseTime(const RequestInfo& request);

// The difference of two times of day in seconds. A negative difference is logged
// and replaced by 0.
double diffTime(std::int32_t startSec, std::int32_t startUsec, std::int32_t endSec,
                std::int32_t endUsec);

// Counts a connection of `kind` that was accepted as `fd`.
void countAccepted(int fd, SocketKind kind);

// Resets the state of `fd`, which now belongs to an untracked socket. The end of
// an earlier connection with this number is not counted.
void forgetDescriptor(int fd);

// Counts the close of `fd` if it is a tracked connection. Called before the close.
// Returns whether it was a connection that this process served.
bool countClosed(int fd);

}  // namespace tolvane
