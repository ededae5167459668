// Text helpers that allocate nothing, use little stack and ignore the locale: a
// bounded builder for messages and paths, and the C locale's character classes.
#pragma once

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <bit>
#include <climits>
#include <cstddef>
#include <cstring>

namespace tolvane {

// A range of bytes that the shim does not own, not NUL-terminated.
struct Bytes {
    const char* data = nullptr;
    std::size_t length = 0;
};

inline bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
inline bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
inline char lowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// The number formed by the digits at `p`: INT_MAX if too large, 0 without digits.
inline int numberAt(const char* p, const char* end) {
    int value = 0;
    for (; p != end && isDigit(*p); ++p) {
        int digit = *p - '0';
        if (value > (INT_MAX - digit) / 10) return INT_MAX;
        value = value * 10 + digit;
    }
    return value;
}

// Position of the first `c` in the text, `length` if there is none. Host values,
// URLs and header lines are short, so a library call costs more than the search.
// The search is inline where every processor has the instructions.
inline std::size_t positionOf(char c, const char* text, std::size_t length) {
#ifdef __SSE2__
    std::size_t at = 0;
    const __m128i wanted = _mm_set1_epi8(c);
    for (; length - at >= 16; at += 16) {
        __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
        auto found = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, wanted)));
        if (found != 0) return at + static_cast<unsigned>(std::countr_zero(found));
    }
    while (at < length && text[at] != c) ++at;
    return at;
#else
    const void* found = std::memchr(text, c, length);
    return found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - text)
                            : length;
#endif
}

// Builds a NUL-terminated text of at most N - 1 characters and drops the rest.
template <std::size_t N>
class Text {
  public:
    Text& add(const char* text) {
        while (*text != '\0' && length_ < N - 1) buffer_[length_++] = *text++;
        buffer_[length_] = '\0';
        return *this;
    }
    Text& add(long long value) {
        char digits[24];
        char* p = digits + sizeof digits - 1;
        *p = '\0';
        auto rest = value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                              : static_cast<unsigned long long>(value);
        do {
            *--p = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (value < 0) *--p = '-';
        return add(p);
    }
    // `value` in decimal, at least two digits.
    Text& addTwoDigits(int value) {
        if (value < 10) add("0");
        return add(value);
    }
    void clear() { buffer_[length_ = 0] = '\0'; }
    const char* text() const { return buffer_; }
    std::size_t length() const { return length_; }

  private:
    char buffer_[N] = {};
    std::size_t length_ = 0;
};

}  // namespace tolvane
