// Counting the messages of an HTTP/1.x connection.
#pragma once

#include <cstdint>

#include "shim_utils/accounting/exchange_counting.h"

namespace tolvane {

// Each counts a part of what was received or sent, or a number of bytes that are not in
// sight. http1Sent returns the end of what it has read: the end of the part, or a place
// behind a response that upgrades the connection, whose protocol has been changed then.
void http1Received(const Messages& messages, Bytes part);
void http1ReceivedUnseen(const Messages& messages, std::uint64_t n);
const char* http1Sent(const Messages& messages, Bytes part);
void http1SentUnseen(const Messages& messages, std::uint64_t n);

// Nothing that follows is a message. The requests in flight get no response that can be
// read, and are no drops.
void stopHttp1(const Messages& messages);

// The connection is about to be closed.
void http1Closed(const Messages& messages);

}  // namespace tolvane
