// URL patterns as people write them: '*' stands for any text, also none; "\*"
// is an asterisk and "\\" a backslash. "/shop*.jsp" becomes the pieces "/shop"
// and ".jsp" with a wildcard between them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tolvane::agent {

struct UrlPattern {
    std::vector<std::string> pieces;  // none: every URL
    bool leadingWildcard = false;
    bool trailingWildcard = false;

    bool operator==(const UrlPattern&) const = default;
};

// Throws Error: what is wrong with the text, and what would be right.
UrlPattern parseUrlPattern(std::string_view text);

}  // namespace tolvane::agent
