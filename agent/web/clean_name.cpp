#include "web/clean_name.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "base/text.h"

namespace tolvane::agent {

namespace {

// What printable() lets through and is no UTF-8 all the same: overlong forms,
// surrogates and what lies beyond U+10FFFF.
std::string validUtf8(const std::string& text) {
    using Json = nlohmann::json;
    std::string quoted = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    return Json::parse(quoted).get<std::string>();
}

bool isPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

}  // namespace

std::string cleanName(std::string_view name) {
    return isPlain(name) ? std::string(name) : validUtf8(printable(name));
}

std::string CleanNames::add(std::string_view name) {
    std::string clean = cleanName(name);
    while (!taken_.insert(clean).second) clean += '~';
    return clean;
}

}  // namespace tolvane::agent
