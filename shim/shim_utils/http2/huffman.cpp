#include "shim_utils/http2/huffman.h"

namespace tolvane {
namespace {

constexpr std::uint32_t kLongest = 30;  // bits of a code
constexpr std::uint32_t kShort = 8;     // codes up to this length are in a table
constexpr int kSymbols = 257;
constexpr std::uint16_t kEndSymbol = 256;

constexpr std::uint8_t kLengths[kSymbols] = {
    13, 23, 28, 28, 28, 28, 28, 28, 28, 24, 30, 28, 28, 30, 28, 28, 28, 28, 28, 28, 28, 28, 30, 28,
    28, 28, 28, 28, 28, 28, 28, 28, 6,  10, 10, 12, 13, 6,  8,  11, 10, 10, 8,  11, 8,  6,  6,  6,
    5,  5,  5,  6,  6,  6,  6,  6,  6,  6,  7,  8,  15, 6,  12, 10, 13, 6,  7,  7,  7,  7,  7,  7,
    7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  7,  8,  7,  8,  13, 19, 13, 14, 6,
    15, 5,  6,  5,  6,  5,  6,  6,  6,  5,  7,  7,  6,  6,  6,  5,  6,  7,  6,  5,  5,  6,  7,  7,
    7,  7,  7,  15, 11, 14, 13, 28, 20, 22, 20, 20, 22, 22, 22, 23, 22, 23, 23, 23, 23, 23, 24, 23,
    24, 24, 22, 23, 24, 23, 23, 23, 23, 21, 22, 23, 22, 23, 23, 24, 22, 21, 20, 22, 22, 23, 23, 21,
    23, 22, 22, 24, 21, 22, 23, 23, 21, 21, 22, 21, 23, 22, 23, 23, 20, 22, 22, 22, 23, 22, 22, 23,
    26, 26, 20, 19, 22, 23, 22, 25, 26, 26, 26, 27, 27, 26, 24, 25, 19, 21, 26, 27, 27, 26, 27, 24,
    21, 21, 26, 26, 28, 27, 27, 27, 20, 24, 20, 21, 22, 21, 21, 23, 22, 22, 25, 25, 24, 24, 26, 23,
    26, 27, 26, 26, 27, 27, 27, 27, 27, 28, 27, 27, 27, 27, 27, 26, 30};

// The code is canonical: the codes of a length are consecutive in the order of their
// symbols, and follow those of the smaller lengths.
struct Code {
    struct Entry {
        std::uint8_t symbol;
        std::uint8_t length;  // 0: the code is longer
    };
    Entry shortCodes[1U << kShort] = {};       // by the first bits
    std::uint32_t limit[kLongest] = {};        // the code behind those of a length, aligned high
    std::int32_t toSymbol[kLongest + 1] = {};  // from a code of the length to `symbols`
    std::uint16_t symbols[kSymbols] = {};      // in the order of their codes

    constexpr Code() {
        std::uint32_t code = 0;
        int position = 0;
        for (std::uint32_t length = 1; length <= kLongest; ++length) {
            code <<= 1U;
            toSymbol[length] = position - static_cast<std::int32_t>(code);
            for (int symbol = 0; symbol < kSymbols; ++symbol) {
                if (kLengths[symbol] != length) continue;
                if (length <= kShort) addShort(code, length, symbol);
                symbols[position++] = static_cast<std::uint16_t>(symbol);
                ++code;
            }
            if (length < kLongest) limit[length] = code << (32 - length);
        }
    }
    constexpr void addShort(std::uint32_t code, std::uint32_t length, int symbol) {
        const std::uint32_t unused = kShort - length;
        for (std::uint32_t rest = 0; rest < 1U << unused; ++rest) {
            shortCodes[code << unused | rest] = {static_cast<std::uint8_t>(symbol),
                                                 static_cast<std::uint8_t>(length)};
        }
    }
};
constexpr Code kCode;

struct Symbol {
    std::uint32_t value;
    std::uint32_t length;
};

// The symbol whose code `bits` begin with: one of more than kShort bits.
Symbol longSymbol(std::uint32_t bits) {
    std::uint32_t length = kShort + 1;
    while (length < kLongest && bits >= kCode.limit[length]) ++length;
    const auto code = static_cast<std::int32_t>(bits >> (32 - length));
    return {kCode.symbols[code + kCode.toSymbol[length]], length};
}

}  // namespace

bool HuffmanDecoder::read(const char* p, const char* end, Output& output) {
    std::uint64_t bits = std::uint64_t{bits_} << 32;
    std::uint32_t count = count_;
    std::uint32_t length = output.length;
    for (;;) {
        if (count < kLongest) {
            for (; count <= 56 && p != end; count += 8) {
                bits |= std::uint64_t{static_cast<unsigned char>(*p++)} << (56 - count);
            }
        }
        const Code::Entry entry = kCode.shortCodes[bits >> 56];
        Symbol symbol = {entry.symbol, entry.length};
        if (symbol.length == 0) symbol = longSymbol(static_cast<std::uint32_t>(bits >> 32));
        // Bits that have not come are 0. They do not matter to a code without them.
        if (symbol.length > count) break;
        if (symbol.value == kEndSymbol) return false;
        if (length < output.capacity) output.to[length] = static_cast<char>(symbol.value);
        ++length;
        bits <<= symbol.length;
        count -= symbol.length;
    }
    output.length = length;
    bits_ = static_cast<std::uint32_t>(bits >> 32);
    count_ = count;
    return true;
}

bool HuffmanDecoder::mayEnd() const {
    return count_ < 8 && bits_ == ~(~0U >> count_);
}

}  // namespace tolvane
