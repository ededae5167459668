#include "web/clean_name.h"

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

bool isAscii(std::string_view text) {
    for (char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    }
    return true;
}

}  // namespace

std::string cleanName(std::string_view name) {
    std::string text = printable(name);
    return isAscii(text) ? text : validUtf8(text);
}

std::string CleanNames::add(std::string_view name) {
    std::string clean = cleanName(name);
    while (!taken_.insert(clean).second) clean += '~';
    return clean;
}

}  // namespace tolvane::agent
