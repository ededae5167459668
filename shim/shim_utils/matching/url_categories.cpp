#include "shim_utils/matching/url_categories.h"

#include <bit>
#include <cstring>

namespace tolvane {
namespace {

// The first occurrence of `piece` in [p, end); null when there is none.
const char* findPiece(const char* p, const char* end, const char* piece, std::size_t length) {
    if (length == 0) return p;
    while (static_cast<std::size_t>(end - p) >= length) {
        const void* first =
            std::memchr(p, piece[0], static_cast<std::size_t>(end - p) - length + 1);
        if (first == nullptr) return nullptr;
        p = static_cast<const char*>(first);
        if (std::memcmp(p, piece, length) == 0) return p;
        ++p;
    }
    return nullptr;
}

bool startsWith(Bytes url, const char* piece, std::size_t length) {
    return url.length >= length && std::memcmp(url.data, piece, length) == 0;
}

// Whether `url` matches the pattern, looked for by itself.
bool matchSection(Bytes url, const UrlSection& section) {
    const int pieces = section.numPieces;
    if (pieces == 1 && section.leadingWildcard == 0 && section.trailingWildcard == 0) {
        return url.length == std::strlen(section.piece[0]) &&
               startsWith(url, section.piece[0], url.length);
    }
    const char* p = url.data;
    const char* end = url.data + url.length;
    for (int i = 0; i < pieces; ++i) {
        const char* piece = section.piece[i];
        std::size_t textLength = std::strlen(piece);
        // The first piece is anchored: then only one place is worth a look.
        if (i == 0 && section.leadingWildcard == 0) {
            if (!startsWith(url, piece, textLength)) return false;
        } else {
            p = findPiece(p, end, piece, textLength);
            if (p == nullptr) return false;
        }
        const std::ptrdiff_t length = section.pieceLength[i];
        if (i == pieces - 1 && section.trailingWildcard == 0 && end - p != length) return false;
        p = end - p < length ? end : p + length;
    }
    return true;
}

// The categories of site `s` that a pattern outside the index puts `url` in.
std::uint32_t matchPlainSections(const Configuration& config, int s, Bytes url) {
    std::uint32_t categories = 0;
    for (int c = 0; c < config.info.numCategories[s]; ++c) {
        const CategoryConfig& category = config.info.categories[s][c];
        for (int k = 0; k < category.numSections; ++k) {
            bool plain = (config.patterns.sites[s].plain[c] >> k & 1) != 0;
            if (plain && matchSection(url, category.sections[k])) {
                categories |= 1U << c;
                break;
            }
        }
    }
    return categories;
}

}  // namespace

void matchCategory(const Configuration& config, Bytes url, RequestInfo& request) {
    request.numMatched = 0;
    if (url.data == nullptr || url.length == 0) return;
    // The URL counts as a string: a NUL in it is its end.
    url.length = positionOf('\0', url.data, url.length);

    const int s = request.siteIndex;
    std::uint32_t categories = findPatterns(config.patterns, s, url);
    if (config.patterns.sites[s].hasPlain) categories |= matchPlainSections(config, s, url);
    for (; categories != 0; categories &= categories - 1) {
        request.matched[request.numMatched++] = std::countr_zero(categories);
    }
}

}  // namespace tolvane
