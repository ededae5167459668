#include "shim_utils/configuration/site_names.h"

#include <cstring>

#include "shim_utils/platform/text.h"

namespace tolvane {

std::uint32_t nameHash(const char* name, std::size_t length) {
    // A word at a time. Setting the bit that distinguishes the case of letters makes
    // both cases equal, and also some pairs of other characters.
    using Word = std::size_t;
    constexpr Word kCaseBits = ~Word{0} / 255 * 0x20;
    constexpr Word kFactor = static_cast<Word>(0x9E3779B97F4A7C15ULL);
    auto mix = [](Word hash, Word word) {
        hash = (hash ^ (word | kCaseBits)) * kFactor;
        return hash ^ hash >> sizeof(Word) * 4;
    };
    Word hash = length;
    for (; length >= sizeof(Word); name += sizeof(Word), length -= sizeof(Word)) {
        Word word;
        std::memcpy(&word, name, sizeof word);
        hash = mix(hash, word);
    }
    Word rest = 0;
    while (length > 0) rest = rest << 8 | static_cast<unsigned char>(name[--length]);
    hash = mix(hash, rest);
    return static_cast<std::uint32_t>(hash);
}

const char* nameText(const ConfigInfo& config, int n) {
    int s = n / SiteNames::kNamesPerSite;
    int h = n % SiteNames::kNamesPerSite;
    return h == 0 ? config.siteName[s] : config.hostName[s][h - 1];
}

void prepareNames(SiteNames& names, const ConfigInfo& config) {
    std::memset(names.first, 0, sizeof names.first);
    // From the last to the first, because each name is inserted at the front.
    for (int n = config.numSites * SiteNames::kNamesPerSite - 1; n >= 0; --n) {
        bool extra = n % SiteNames::kNamesPerSite > config.numHosts[n / SiteNames::kNamesPerSite];
        const char* text = nameText(config, n);
        if (extra || text[0] == '\0') continue;
        std::size_t length = std::strlen(text);
        std::size_t colon = positionOf(':', text, length);
        std::uint32_t hash = nameHash(text, colon);
        std::uint8_t& first = names.first[SiteNames::bucket(hash)];
        names.names[n] = {hash, static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(colon),
                          first};
        first = static_cast<std::uint8_t>(n + 1);
    }
}

}  // namespace tolvane
