// The fields of a configuration block whose values have bounds. Every process
// that copies a block checks them before it uses the copy.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "tolvane/segment_format.h"

namespace tolvane {

// `value`, bounded to 0..limit.
constexpr std::int32_t bounded(std::int32_t value, int limit) {
    return value < 0 ? 0 : value > limit ? limit : value;
}

// The part of forEachBoundedField for one category.
template <typename Visitor>
void forEachBoundedFieldOf(CategoryConfig& category, int s, int c, Visitor& visitor) {
    visitor.number(category.numSections, kMaxSections, "numSections", {s, c});
    const int sections = bounded(category.numSections, kMaxSections);
    for (int k = 0; k < sections; ++k) {
        UrlSection& section = category.sections[k];
        visitor.number(section.numPieces, kMaxPieces, "numPieces", {s, c, k});
        const int pieces = bounded(section.numPieces, kMaxPieces);
        for (int p = 0; p < pieces; ++p) {
            visitor.text(section.piece[p], kPieceSize, "piece", {s, c, k, p});
            visitor.number(section.pieceLength[p], kPieceSize - 1, "pieceLength", {s, c, k, p});
        }
    }
}

// Calls the visitor for each field in use, a count before the elements it counts:
//   visitor.number(std::int32_t& value, int limit, const char* field, indices)
//       for a number that must be 0 to `limit`;
//   visitor.text(char* text, int size, const char* field, indices)
//       for a text that must be terminated within its `size` bytes.
// `indices` (std::initializer_list<int>) are those of the site, category, section
// and piece. The visitor may change the values. Elements beyond the capacity of an
// array are never visited, even if the visitor changes nothing. The labels of
// categories are not visited, because only agents read them.
template <typename Visitor>
void forEachBoundedField(ConfigInfo& config, Visitor&& visitor) {
    visitor.number(config.numSites, kMaxSites, "numSites", {});
    const int sites = bounded(config.numSites, kMaxSites);
    for (int s = 0; s < sites; ++s) {
        visitor.text(config.siteName[s], kNameSize, "siteName", {s});
        visitor.number(config.numHosts[s], kMaxExtraHosts, "numHosts", {s});
        const int hosts = bounded(config.numHosts[s], kMaxExtraHosts);
        for (int h = 0; h < hosts; ++h) {
            visitor.text(config.hostName[s][h], kNameSize, "hostName", {s, h});
        }
        visitor.number(config.numCategories[s], kMaxCategories, "numCategories", {s});
        const int categories = bounded(config.numCategories[s], kMaxCategories);
        for (int c = 0; c < categories; ++c) {
            forEachBoundedFieldOf(config.categories[s][c], s, c, visitor);
        }
    }
}

}  // namespace tolvane
