#include "block_decoder.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

namespace tolvane::fuzz {
namespace {

constexpr std::string_view kNameLetters = "aA`@b.:80443-\x01\xe1\xc1";
constexpr std::string_view kUrlLetters = "ab/.";

char letter(unsigned byte, std::string_view letters) {
    // Some stand for themselves: no letter is unlike the others to the matcher.
    return byte >= 0xF8 ? static_cast<char>(byte) : letters[byte % letters.size()];
}

int usable(std::int32_t count, int limit) {
    return std::clamp(count, 0, limit);
}

// How many entries an array states, and how many of them are there: some inputs
// leave one behind the count, which must not be looked at.
struct Count {
    std::int32_t stated;
    int decoded;
};

Count decodeCount(Input& input, int limit) {
    const unsigned byte = input.take();
    const auto stated = static_cast<std::int32_t>(
        byte >= 0xF0 ? input.takeWord() : byte % (static_cast<unsigned>(limit) + 1));
    return {stated, std::min(usable(stated, limit) + (byte >= 0x80), limit)};
}

// Fills `length` bytes with letters, again and again the same few when there
// are many of them.
void decodeText(Input& input, char* text, std::size_t length, std::string_view letters) {
    const std::size_t unit = length < 16 ? length : 1 + input.take() % 8;
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = i < unit ? letter(input.take(), letters) : text[i - unit];
    }
}

template <std::size_t kSize>
void decodeField(Input& input, char (&text)[kSize], std::size_t usual, std::string_view letters) {
    const unsigned byte = input.take();
    // Up to one byte too long for the NUL that should end it.
    const std::size_t length = byte < 0xF0 ? byte % usual : kSize + (byte & 7) - 7;
    decodeText(input, text, length, letters);
}

std::int32_t decodeLength(Input& input, const char (&piece)[kPieceSize]) {
    const unsigned byte = input.take();
    if (byte < 0xC0) return static_cast<std::int32_t>(strnlen(piece, kPieceSize));
    if (byte >= 0xF0) return static_cast<std::int32_t>(input.takeWord());
    return static_cast<std::int32_t>(byte % (kPieceSize + 2));
}

void decodeSection(Input& input, UrlSection& section) {
    const Count pieces = decodeCount(input, kMaxPieces);
    section.numPieces = pieces.stated;
    const unsigned wildcards = input.take();
    section.leadingWildcard = static_cast<std::int32_t>(wildcards & 0x5);
    section.trailingWildcard = static_cast<std::int32_t>(wildcards & 0xA) - (wildcards >= 0x80);
    for (int p = 0; p < pieces.decoded; ++p) {
        decodeField(input, section.piece[p], 5, kUrlLetters);
        section.pieceLength[p] = decodeLength(input, section.piece[p]);
    }
}

void decodeSite(Input& input, ConfigInfo& block, int s) {
    decodeField(input, block.siteName[s], 12, kNameLetters);
    const Count hosts = decodeCount(input, kMaxExtraHosts);
    block.numHosts[s] = hosts.stated;
    for (int h = 0; h < hosts.decoded; ++h) {
        decodeField(input, block.hostName[s][h], 12, kNameLetters);
    }
    const Count categories = decodeCount(input, kMaxCategories);
    block.numCategories[s] = categories.stated;
    for (int c = 0; c < categories.decoded; ++c) {
        CategoryConfig& category = block.categories[s][c];
        const Count sections = decodeCount(input, kMaxSections);
        category.numSections = sections.stated;
        for (int k = 0; k < sections.decoded; ++k) {
            decodeSection(input, category.sections[k]);
        }
    }
}

// Writes to `text` letters and parts that `part` picks.
template <typename Part>
void decodeQuery(Input& input, std::string& text, std::string_view letters, Part part) {
    text.clear();
    for (unsigned left = input.take() % 64; left > 0; --left) {
        const unsigned byte = input.take();
        if (byte < 0xC0 || byte >= 0xF8) {
            text += letter(byte, letters);
        } else if (byte < 0xF0) {
            text += part(byte);
        } else if (text.size() < 4096) {
            text += text;
        }
    }
}

std::string_view fieldText(const char* text, std::size_t size) {
    return {text, strnlen(text, size)};
}

}  // namespace

void decodeBlock(Input& input, ConfigInfo& block) {
    static const auto blank = [] {
        auto unterminated = std::make_unique<ConfigInfo>();
        for (auto& site : unterminated->categories) {
            for (CategoryConfig& category : site) std::memset(category.label, 'x', kLabelSize);
        }
        return unterminated;
    }();
    block = *blank;
    const Count sites = decodeCount(input, kMaxSites);
    block.numSites = sites.stated;
    for (int s = 0; s < sites.decoded; ++s) decodeSite(input, block, s);
}

const std::string& decodeUrl(Input& input, const ConfigInfo& block) {
    static std::string url;
    decodeQuery(input, url, kUrlLetters, [&](unsigned which) {
        const UrlSection& section = block.categories[0][which / 8 % 3].sections[which / 4 % 2];
        return fieldText(section.piece[which % 4], kPieceSize);
    });
    return url;
}

const std::string& decodeHost(Input& input, const ConfigInfo& block) {
    static std::string host;
    decodeQuery(input, host, kNameLetters, [&](unsigned which) {
        return which % 4 == 0 ? fieldText(block.siteName[which / 4 % 4], kNameSize)
                              : fieldText(block.hostName[0][which % 4 - 1], kNameSize);
    });
    host.resize(std::min(host.find('\0'), host.size()));
    return host;
}

}  // namespace tolvane::fuzz
