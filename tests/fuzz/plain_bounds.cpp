#include "plain_bounds.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace tolvane::fuzz {
namespace {

class PlainBounds {
  public:
    bool apply(ConfigInfo& block) {
        count(block.numSites, kMaxSites);
        for (int s = 0; s < block.numSites; ++s) {
            end(block.siteName[s]);
            count(block.numHosts[s], kMaxExtraHosts);
            for (int h = 0; h < block.numHosts[s]; ++h) end(block.hostName[s][h]);
            count(block.numCategories[s], kMaxCategories);
            for (int c = 0; c < block.numCategories[s]; ++c) {
                CategoryConfig& category = block.categories[s][c];
                count(category.numSections, kMaxSections);
                for (int k = 0; k < category.numSections; ++k) section(category.sections[k]);
            }
        }
        return changed_;
    }

  private:
    void section(UrlSection& section) {
        count(section.numPieces, kMaxPieces);
        for (int p = 0; p < section.numPieces; ++p) {
            end(section.piece[p]);
            count(section.pieceLength[p], kPieceSize - 1);
        }
    }
    void count(std::int32_t& value, std::int32_t limit) {
        const std::int32_t bounded = std::clamp(value, 0, limit);
        changed_ = changed_ || bounded != value;
        value = bounded;
    }
    template <std::size_t kSize>
    void end(char (&text)[kSize]) {
        if (std::find(text, text + kSize, '\0') != text + kSize) return;
        text[kSize - 1] = '\0';
        changed_ = true;
    }

    bool changed_ = false;
};

// Words at a time, and not with the sanitizer's slow comparison.
template <typename Part>
bool sameBytes(const Part& a, const Part& b) {
    static_assert(sizeof(Part) % sizeof(std::uint32_t) == 0);
    std::uint32_t differing = 0;
    for (std::size_t i = 0; i < sizeof(Part); i += sizeof(std::uint32_t)) {
        std::uint32_t words[2];
        __builtin_memcpy(&words[0], reinterpret_cast<const char*>(&a) + i, sizeof words[0]);
        __builtin_memcpy(&words[1], reinterpret_cast<const char*>(&b) + i, sizeof words[1]);
        differing |= words[0] ^ words[1];
    }
    return differing == 0;
}

}  // namespace

bool boundPlainly(ConfigInfo& block) {
    return PlainBounds().apply(block);
}

bool sameAsFarAsUsed(const ConfigInfo& a, const ConfigInfo& b) {
    if (a.numSites != b.numSites || !sameBytes(a.numCategories, b.numCategories) ||
        !sameBytes(a.numHosts, b.numHosts) || a.version != b.version || a.interval != b.interval) {
        return false;
    }
    for (int s = 0; s < a.numSites; ++s) {
        for (int c = 0; c < a.numCategories[s]; ++c) {
            if (!sameBytes(a.categories[s][c], b.categories[s][c])) return false;
        }
    }
    return sameBytes(a.siteName, b.siteName) && sameBytes(a.hostName, b.hostName) &&
           a.parentPid == b.parentPid;
}

}  // namespace tolvane::fuzz
