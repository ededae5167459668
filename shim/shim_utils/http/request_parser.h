// Finds what is counted by in the bytes of a request or response. Pure
// functions over the bytes that were really received or written: no copy, no
// state, nothing read beyond them and nothing ever written to them.
#pragma once

#include "shim_utils/platform/text.h"

namespace tolvane {

struct RequestFields {
    Bytes url;   // of the request line; null when there is none
    Bytes host;  // value of the first "Host:" header, port included; null when there is none
};

// Parses the beginning of a request. A method is skipped by its first letter
// alone; a header name counts only as "Host:", in exactly this case.
RequestFields parseHttpHeader(Bytes received);

struct ResponseStatus {
    int status;        // of the status line, 0 when unreadable
    int overrideCode;  // of the last "Tv-Status:" header, 0 without one
};

// Whether `written` begins like a status line ("HTTP" with a capital second T).
bool beginsWithStatusLine(Bytes written);

// Parses the beginning of a response.
ResponseStatus parseHttpWriteHeader(Bytes written);

}  // namespace tolvane
