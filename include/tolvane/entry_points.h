// Entry points that the shim exports in addition to the interposed calls.
#pragma once

#include "tolvane/segment_format.h"

namespace tolvane {
struct RequestInfo;
}

#define TOLVANE_EXPORT extern "C" __attribute__((visibility("default")))

// Reports the start of a request on an SSL connection, whose bytes the shim does
// not examine. `slot` comes from GETINDEX; `host` and `url` are texts of the given
// lengths in bytes, not NUL-terminated. Counts the request, matches it (default
// port 443) and credits the bytes received so far to its site. A slot or
// descriptor that does not exist is ignored.
TOLVANE_EXPORT void updateRequestResults(int slot, const char* host, int hostLength,
                                         const char* url, int urlLength, int descriptor);

// Reports the response to the last request reported on `slot`. `overrideCode`
// replaces `statusCode` unless it is 0. A slot that does not exist is ignored.
TOLVANE_EXPORT void updateResponseResults(int slot, int statusCode, int overrideCode);

// The slot of descriptor `fd`; if it has none, allocates the lowest free slot. -1 if
// no slot is left, before measurement is set up, and for a `serverType` other than
// this server's. A type 0 server has slot 0 only.
TOLVANE_EXPORT int GETINDEX(int serverType, int fd);

// Creates the process-local records for a server of that type (0, 1 or 3).
// Returns 1. If there is not enough memory or the type is unknown, turns measurement
// off and returns 0.
TOLVANE_EXPORT int createResultStruct(int serverType);

// Resets groups of a local or shared record: level 0 the categories, 1 the totals,
// 2 all, 3 the sites, any other nothing. The gauges are reset only if `clearGauges`
// is 1. The dirty flag of a reset group becomes 0.
TOLVANE_EXPORT void reinitializeResult(tolvane::ResultStruct* record, int clearGauges, int level);

// Resets a slot's request state except the start time.
TOLVANE_EXPORT void reinitializeRequestInfo(tolvane::RequestInfo* slot);

// Puts three example sites without categories into the process's own
// configuration. Returns its version: the current time in seconds.
TOLVANE_EXPORT int hardCodeWebSites();
