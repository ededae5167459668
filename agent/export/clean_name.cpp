#include "export/clean_name.h"

#include <algorithm>

#include "os/text.h"

namespace tolvane::agent {

namespace {

bool isPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

}  // namespace

std::string cleanName(std::string_view name) {
    return isPlain(name) ? std::string(name) : printable(name);
}

std::string CleanNames::add(std::string_view name) {
    std::string clean = cleanName(name);
    while (!taken_.insert(clean).second) clean += '~';
    return clean;
}

}  // namespace tolvane::agent
