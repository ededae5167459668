#include "support/plain_matching.h"

#include <algorithm>
#include <cstring>

namespace tolvane::test {
namespace {

char small(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameLetters(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return small(x) == small(y); });
}

bool begins(std::string_view text, std::string_view with) {
    return text.size() >= with.size() && sameLetters(text.substr(0, with.size()), with);
}

template <std::size_t kSize>
std::string_view textOf(const char (&field)[kSize]) {
    return {field, strnlen(field, kSize)};
}

bool plainSectionMatch(std::string_view url, const UrlSection& section) {
    if (section.numPieces == 1 && !section.leadingWildcard && !section.trailingWildcard) {
        return url == textOf(section.piece[0]);
    }
    std::size_t p = 0;
    for (int i = 0; i < section.numPieces; ++i) {
        const std::size_t found = url.find(textOf(section.piece[i]), p);
        if (found == std::string_view::npos) return false;
        if (i == 0 && !section.leadingWildcard && found != 0) return false;
        const auto length = static_cast<std::size_t>(section.pieceLength[i]);
        const bool last = i == section.numPieces - 1;
        if (last && !section.trailingWildcard && url.size() - found != length) return false;
        p = std::min(found + length, url.size());
    }
    return true;
}

}  // namespace

bool plainHostMatch(std::string_view host, std::string_view name, ConnectionKind kind) {
    if (host.empty() || name.empty()) return false;
    const std::size_t length = host.size();
    const std::size_t hostColon = std::min(host.find(':'), length);
    const std::size_t nameColon = std::min(name.find(':'), name.size());
    const std::string_view standard = kind == kPlainRequest ? ":80" : ":443";
    if (sameLetters(host, name)) return true;
    if (hostColon == length) return begins(name, host) && name.substr(length) == standard;
    if (nameColon != hostColon) return false;
    if (!sameLetters(host.substr(0, hostColon), name.substr(0, hostColon))) return false;
    const std::string_view port = nameColon < name.size() ? name.substr(nameColon) : standard;
    return begins(port, host.substr(hostColon));
}

int plainSite(const ConfigInfo& config, std::string_view host, ConnectionKind kind) {
    for (int s = 0; s < config.numSites; ++s) {
        if (plainHostMatch(host, textOf(config.siteName[s]), kind)) return s;
        for (int h = 0; h < config.numHosts[s]; ++h) {
            if (plainHostMatch(host, textOf(config.hostName[s][h]), kind)) return s;
        }
    }
    return -1;
}

std::vector<int> plainCategories(const ConfigInfo& config, std::string_view url, int site) {
    std::vector<int> categories;
    if (url.empty()) return categories;
    url = url.substr(0, url.find('\0'));
    for (int c = 0; c < config.numCategories[site]; ++c) {
        const CategoryConfig& category = config.categories[site][c];
        bool matched = false;
        for (int k = 0; k < category.numSections && !matched; ++k) {
            matched = plainSectionMatch(url, category.sections[k]);
        }
        if (matched) categories.push_back(c);
    }
    return categories;
}

}  // namespace tolvane::test
