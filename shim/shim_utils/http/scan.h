// Searches shared by the readers of messages. Each stays within [p, end).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "shim_utils/platform/text.h"

namespace tolvane {

// Skips bytes greater than the space.
inline const char* skipVisible(const char* p, const char* end) {
#ifdef __SSE2__
    const __m128i space = _mm_set1_epi8(' ');
    for (; end - p >= 16; p += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i blank = _mm_cmpeq_epi8(_mm_min_epu8(bytes, space), bytes);
        const auto found = static_cast<unsigned>(_mm_movemask_epi8(blank));
        if (found != 0) return p + std::countr_zero(found);
    }
#else
    // Tests a word at a time. A borrow only affects higher bytes, so the test may
    // report a byte falsely but misses none. The second loop tests each byte.
    using Word = std::size_t;
    constexpr Word kEach = ~Word{0} / 255;
    for (Word word; static_cast<std::size_t>(end - p) >= sizeof word; p += sizeof word) {
        std::memcpy(&word, p, sizeof word);
        if (((word - kEach * (' ' + 1)) & ~word & kEach * 0x80) != 0) break;
    }
#endif
    while (p != end && static_cast<unsigned char>(*p) > ' ') ++p;
    return p;
}

#ifdef __SSE2__
// Bit i: byte i of the 16 bytes at `p` is a line feed.
inline std::uint64_t lineFeedsIn16(const char* p) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i equal = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n'));
    return static_cast<unsigned>(_mm_movemask_epi8(equal));
}

// The same for the last bytes of the text in [begin, end), fewer than 16 from `p` on.
// It reads them with those before, where there are enough.
inline std::uint64_t lineFeedsInRest(const char* begin, const char* p, const char* end) {
    const auto left = static_cast<unsigned>(end - p);
    if (end - begin >= 16) return lineFeedsIn16(end - 16) >> (16 - left);
    std::uint64_t found = 0;
    for (unsigned at = 0; at != left; ++at) found |= std::uint64_t{p[at] == '\n'} << at;
    return found;
}
#endif

// Calls `visit` with the position behind each line feed in [begin, end), until it
// returns true. False: it never did.
template <typename Visit>
inline bool forEachLineEnd(const char* begin, const char* end, Visit visit) {
    const char* p = begin;
#ifdef __SSE2__
    const auto visitEach = [&](std::uint64_t found) __attribute__((always_inline)) {
        for (; found != 0; found &= found - 1) {
            if (visit(p + std::countr_zero(found) + 1)) return true;
        }
        return false;
    };
    for (; end - p >= 64; p += 64) {
        if (visitEach(lineFeedsIn16(p) | lineFeedsIn16(p + 16) << 16 | lineFeedsIn16(p + 32) << 32 |
                      lineFeedsIn16(p + 48) << 48)) {
            return true;
        }
    }
    for (; end - p >= 16; p += 16) {
        if (visitEach(lineFeedsIn16(p))) return true;
    }
    return p != end && visitEach(lineFeedsInRest(begin, p, end));
#else
    while ((p += positionOf('\n', p, static_cast<std::size_t>(end - p))) != end) {
        if (visit(++p)) return true;
    }
    return false;
#endif
}

}  // namespace tolvane
