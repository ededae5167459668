#include "fullest_configuration.h"

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

}  // namespace

void fullestConfiguration(ConfigInfo& config) {
    config.numSites = kMaxSites;
    for (int s = 0; s < kMaxSites; ++s) {
        std::snprintf(config.siteName[s], kNameSize, "site%d.example.com", s);
        config.numHosts[s] = kMaxExtraHosts;
        for (int h = 0; h < kMaxExtraHosts; ++h) {
            std::snprintf(config.hostName[s][h], kNameSize, "host%d.of-site%d.example.com", h, s);
        }
        config.numCategories[s] = kMaxCategories;
        for (int c = 0; c < kMaxCategories; ++c) {
            config.categories[s][c].numSections = kMaxSections;
            for (int k = 0; k < kMaxSections; ++k) {
                fillSection(config.categories[s][c].sections[k], s, c, k);
            }
        }
    }
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
