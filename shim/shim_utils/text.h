// Small text helpers that allocate nothing, use little stack and know nothing
// of locales: a bounded builder for messages and paths, and the C locale's
// character classes.
#pragma once

#include <climits>
#include <cstddef>
#include <cstring>

namespace tolvane {

// A stretch of somebody else's bytes, not NUL-terminated.
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

// The number formed by the digits at `p`, INT_MAX when too large; 0 without any.
inline int numberAt(const char* p, const char* end) {
    int value = 0;
    for (; p != end && isDigit(*p); ++p) {
        int digit = *p - '0';
        if (value > (INT_MAX - digit) / 10) return INT_MAX;
        value = value * 10 + digit;
    }
    return value;
}

// Position of the first `c` in the text, `length` when there is none.
inline std::size_t positionOf(char c, const char* text, std::size_t length) {
    const void* found = std::memchr(text, c, length);
    return found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - text)
                            : length;
}

// Builds a NUL-terminated text of at most N - 1 characters; what does not fit
// is cut.
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
