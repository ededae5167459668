// The steps of an exchange, in whatever protocol it is.
#pragma once

#include <cstdint>

#include "shim_utils/accounting/accounting.h"
#include "shim_utils/slots/exchanges.h"

namespace tolvane {

// A connection and its messages.
struct Messages {
    const Connection& connection;
    ConnectionMessages& state;

    Slot slot() const { return connection.slot; }
};

// Nanoseconds of the monotonic clock.
std::int64_t now();

// A request for `url` on `host` begins, either of which may be null. Its exchange with
// the site, the categories, and the time where it has categories: the state's
// `requestStart`, or now. Counts the request.
Exchange beginExchange(const Messages& messages, Bytes host, Bytes url);

// Counts the final response to `exchange` by its status, and its time: from the start of
// the exchange to the state's `responseStart`, or now.
void countResponse(const Messages& messages, Exchange& exchange, int status);

// A request whose response did not begin before the end of its connection or stream.
void countDropped(Slot slot, Exchange& exchange);

// No response to the exchange can be read.
void abandon(Slot slot, const Exchange& exchange);

// Adds bytes of a request to its site, and of a response also to its categories.
void addReceivedBytes(Slot slot, const Credit& credit, std::uint64_t bytes);
void addSentBytes(Slot slot, const Credit& credit, std::uint64_t bytes);

}  // namespace tolvane
