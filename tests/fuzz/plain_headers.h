// What a request and a response say, read byte by byte: the reference for the
// parsers.
#pragma once

#include <string_view>

namespace tolvane::fuzz {

// A part of a text. One that was not found has no start.
struct Stretch {
    long start = -1;
    long length = 0;
};

struct PlainRequest {
    Stretch url;
    Stretch host;
};
PlainRequest readRequest(std::string_view text);

struct PlainResponse {
    int status = 0;
    int overrideCode = 0;
};
PlainResponse readResponse(std::string_view text);

bool isStatusLine(std::string_view text);

}  // namespace tolvane::fuzz
