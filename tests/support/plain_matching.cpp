#include "support/plain_matching.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace tolvane::test {
namespace {

bool plainSectionMatch(const char* url, const UrlSection& section) {
    if (section.numPieces == 1 && !section.leadingWildcard && !section.trailingWildcard) {
        return std::strcmp(url, section.piece[0]) == 0;
    }
    const char* end = url + std::strlen(url);
    const char* p = url;
    for (int i = 0; i < section.numPieces; ++i) {
        const char* found = std::strstr(p, section.piece[i]);
        if (found == nullptr) return false;
        if (i == 0 && !section.leadingWildcard && found != url) return false;
        const bool last = i == section.numPieces - 1;
        if (last && !section.trailingWildcard && end - found != section.pieceLength[i])
            return false;
        p = found + std::min<std::ptrdiff_t>(section.pieceLength[i], end - found);
    }
    return true;
}

}  // namespace

bool plainHostMatch(const std::string& host, const std::string& name, ConnectionKind kind) {
    if (host.empty() || name.empty()) return false;
    const std::size_t length = host.size();
    const std::size_t hostColon = std::min(host.find(':'), length);
    const std::size_t nameColon = std::min(name.find(':'), name.size());
    const char* standard = kind == kPlainRequest ? ":80" : ":443";
    if (name.size() == length && strncasecmp(host.c_str(), name.c_str(), length) == 0) return true;
    if (hostColon == length) {
        return strncasecmp(name.c_str(), host.c_str(), length) == 0 &&
               std::strcmp(name.c_str() + length, standard) == 0;
    }
    if (nameColon != hostColon) return false;
    if (strncasecmp(host.c_str(), name.c_str(), hostColon) != 0) return false;
    const char* port = nameColon < name.size() ? name.c_str() + nameColon : standard;
    return strncasecmp(host.c_str() + hostColon, port, length - hostColon) == 0;
}

int plainSite(const ConfigInfo& config, const std::string& host, ConnectionKind kind) {
    for (int s = 0; s < config.numSites; ++s) {
        if (plainHostMatch(host, config.siteName[s], kind)) return s;
        for (int h = 0; h < config.numHosts[s]; ++h) {
            if (plainHostMatch(host, config.hostName[s][h], kind)) return s;
        }
    }
    return -1;
}

std::vector<int> plainCategories(const ConfigInfo& config, const std::string& url, int site) {
    std::vector<int> categories;
    if (url.empty()) return categories;
    for (int c = 0; c < config.numCategories[site]; ++c) {
        const CategoryConfig& category = config.categories[site][c];
        bool matched = false;
        for (int k = 0; k < category.numSections && !matched; ++k) {
            matched = plainSectionMatch(url.c_str(), category.sections[k]);
        }
        if (matched) categories.push_back(c);
    }
    return categories;
}

}  // namespace tolvane::test
