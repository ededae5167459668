// Requests as the browsers of today send them: a page asked for by following a
// link, with cookies.
#pragma once

#include <string>

namespace tolvane::bench {

enum class Browser { kChrome, kFirefox };
enum class HostLine { kFirst, kLast };

std::string browserRequest(Browser browser, HostLine place, const std::string& host,
                           const std::string& url);

}  // namespace tolvane::bench
