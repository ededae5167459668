// Searches shared by the readers of messages. Each stays within [p, end).
#pragma once

#include <cstddef>
#include <cstring>

#include "shim_utils/platform/text.h"

namespace tolvane {

// Skips bytes greater than the space.
inline const char* skipVisible(const char* p, const char* end) {
    // Tests a word at a time. A borrow only affects higher bytes, so the test may
    // report a byte falsely but misses none. The second loop tests each byte.
    using Word = std::size_t;
    constexpr Word kEach = ~Word{0} / 255;
    for (Word word; static_cast<std::size_t>(end - p) >= sizeof word; p += sizeof word) {
        std::memcpy(&word, p, sizeof word);
        if (((word - kEach * (' ' + 1)) & ~word & kEach * 0x80) != 0) break;
    }
    while (p != end && static_cast<unsigned char>(*p) > ' ') ++p;
    return p;
}

}  // namespace tolvane
