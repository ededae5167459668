// Counting the streams of an HTTP/2 connection.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shim_utils/accounting/exchange_counting.h"

namespace tolvane {

// The connection begins with HTTP/2, and `prefaceBytes` of its preface have arrived.
void beginHttp2(const Messages& messages, std::size_t prefaceBytes);

// A request of HTTP/1.x has been answered by 101: if the connection goes on in HTTP/2, it
// is stream 1. The response began at the state's `responseStart`, or now.
void upgradeToHttp2(const Messages& messages, const Exchange& exchange);

// Each counts a part of what was received or sent, or a number of bytes that are not in
// sight.
void http2Received(const Messages& messages, Bytes part);
void http2ReceivedUnseen(const Messages& messages, std::uint64_t n);
void http2Sent(const Messages& messages, Bytes part);
void http2SentUnseen(const Messages& messages, std::uint64_t n);

// Nothing that follows is HTTP/2. The requests in flight are no drops.
void stopHttp2(const Messages& messages);

// The connection is about to be closed.
void http2Closed(const Messages& messages);

}  // namespace tolvane
