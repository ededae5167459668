// Parses the beginning of a request or response. Pure functions over the bytes
// that were received or written: they copy nothing, keep no state, read nothing
// beyond the bytes and never write to them.
#pragma once

#include "shim_utils/platform/text.h"

namespace tolvane {

struct HeadTexts {
    Bytes url;   // of the request line; null if absent
    Bytes host;  // value of the first "Host:" header with its port; null if absent
};

// Parses the beginning of a request. The first letter alone determines how much is
// skipped as the method. The header name "Host:" is case-sensitive.
HeadTexts parseHttpHeader(Bytes received);

struct ResponseStatus {
    int status;        // of the status line, 0 if unreadable
    int overrideCode;  // of the last "Tv-Status:" header, 0 if absent
};

// Whether `written` begins with "HTTP", in which only the second T must be a capital.
bool beginsWithStatusLine(Bytes written);

// Parses the beginning of a response.
ResponseStatus parseHttpWriteHeader(Bytes written);

}  // namespace tolvane
