#include "fullest_configuration.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

using namespace tolvane;

namespace {

void addPiece(UrlSection& section, const char* text) {
    int i = section.numPieces++;
    std::strcpy(section.piece[i], text);
    section.pieceLength[i] = static_cast<int>(std::strlen(text));
}

void fillSection(UrlSection& section, int s, int c, int k) {
    section.leadingWildcard = k % 2;
    section.trailingWildcard = 1;
    for (int p = 0; p < kMaxPieces; ++p) {
        char text[kPieceSize];
        std::snprintf(text, sizeof text, "/part%d-%d%c%c", p, s, 'a' + c, 'a' + k);
        addPiece(section, text);
    }
}

constexpr const char* kAreas[kMaxCategories] = {
    "catalogue", "cart", "checkout", "account", "search", "api",   "images", "static",
    "news",      "help", "download", "admin",   "forum",  "video", "feed"};

// The pattern in the usual form, in which an asterisk stands for any text.
void addPattern(CategoryConfig& category, const std::string& pattern) {
    UrlSection& section = category.sections[category.numSections++];
    section.leadingWildcard = pattern.front() == '*';
    section.trailingWildcard = pattern.back() == '*';
    std::size_t at = 0;
    while (at < pattern.size()) {
        const std::size_t end = std::min(pattern.find('*', at), pattern.size());
        if (end > at) addPiece(section, pattern.substr(at, end - at).c_str());
        at = end + 1;
    }
}

void fillNames(ConfigInfo& config) {
    config.numSites = kMaxSites;
    for (int s = 0; s < kMaxSites; ++s) {
        std::snprintf(config.siteName[s], kNameSize, "site%d.example.com", s);
        config.numHosts[s] = kMaxExtraHosts;
        for (int h = 0; h < kMaxExtraHosts; ++h) {
            std::snprintf(config.hostName[s][h], kNameSize, "host%d.of-site%d.example.com", h, s);
        }
    }
}

}  // namespace

void fullestConfiguration(ConfigInfo& config) {
    fillNames(config);
    for (int s = 0; s < kMaxSites; ++s) {
        config.numCategories[s] = kMaxCategories;
        for (int c = 0; c < kMaxCategories; ++c) {
            config.categories[s][c].numSections = kMaxSections;
            for (int k = 0; k < kMaxSections; ++k) {
                fillSection(config.categories[s][c].sections[k], s, c, k);
            }
        }
    }
}

void usualConfiguration(ConfigInfo& config) {
    fillNames(config);
    for (int s = 0; s < kMaxSites; ++s) {
        config.numCategories[s] = kMaxCategories;
        for (int c = 0; c < kMaxCategories; ++c) {
            const std::string area = kAreas[c];
            for (const std::string& pattern :
                 {"/" + area, "/" + area + "/*", "*/" + area + ".html", "*." + area + "*",
                  "/*/" + area + "/*.html", "*?*" + area + "=*&page=*"}) {
                addPattern(config.categories[s][c], pattern);
            }
        }
    }
}

void nestedConfiguration(ConfigInfo& config) {
    fillNames(config);
    const int s = kMaxSites - 1;
    config.numCategories[s] = kMaxCategories;
    for (int i = 0; i < kMaxCategories * kMaxSections; ++i) {
        const std::string text(static_cast<std::size_t>(i % (kPieceSize - 1) + 1), 'a');
        addPattern(config.categories[s][i / kMaxSections], "*zzz*" + text + "*");
    }
}

std::string repeated(const std::string& text, std::size_t length) {
    std::string result;
    while (result.size() < length) result += text;
    result.resize(length);
    return result;
}

std::string hostileUrl(std::size_t length) {
    std::string url = "/";
    for (int c = 0; c < kMaxCategories; ++c) {
        for (int k = 0; k < kMaxSections; ++k) {
            url += {'9', static_cast<char>('a' + c), static_cast<char>('a' + k)};
        }
    }
    for (int p = kMaxPieces - 1; p >= 0; --p) url += "/part" + std::to_string(p) + "-9";
    return url + repeated("/part2-9", length - url.size());
}

void smallConfiguration(ConfigInfo& config) {
    config.numSites = 1;
    std::strcpy(config.siteName[0], kLastHost);
    config.numCategories[0] = 1;
    config.categories[0][0].numSections = 1;
    UrlSection& section = config.categories[0][0].sections[0];
    section.trailingWildcard = 1;
    addPiece(section, "/shop");
}
