// URL patterns of the configuration file: '*' matches any text, also empty text;
// "\*" is an asterisk and "\\" a backslash. "/shop*.jsp" becomes the pieces "/shop"
// and ".jsp" with a wildcard between them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tolvane::agent {

struct UrlPattern {
    std::vector<std::string> pieces;  // empty: matches every URL
    bool leadingWildcard = false;
    bool trailingWildcard = false;

    bool operator==(const UrlPattern&) const = default;
};

// Throws Error with the fault and the expected text.
UrlPattern parseUrlPattern(std::string_view text);

}  // namespace tolvane::agent
