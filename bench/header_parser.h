// The URL and the Host value of a request, found by llhttp, the parser of Node.js.
#pragma once

#include <string_view>

namespace tolvane::bench {

struct ParsedFields {
    std::string_view url;
    std::string_view host;
};

// Stops as soon as both are found.
ParsedFields parseWithLlhttp(std::string_view request);

}  // namespace tolvane::bench
