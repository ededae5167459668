// Decodes the Huffman code of header texts.
#pragma once

#include <cstdint>

namespace tolvane {

// Decodes one text, however it is split. A zeroed object is ready for a text.
class HuffmanDecoder {
  public:
    // Where the decoded text goes. What lies behind the capacity is only counted.
    struct Output {
        char* to;
        std::uint32_t capacity;
        std::uint32_t length;
    };

    // Decodes all of [p, end). False: there is the symbol that no text has.
    bool read(const char* p, const char* end, Output& output);

    // Whether the text may end here: less than a byte is left, and it is padding.
    bool mayEnd() const;

  private:
    std::uint32_t bits_ = 0;   // behind the last symbol, at the high end; 0 below
    std::uint32_t count_ = 0;  // number of these bits, less than a symbol has
};

}  // namespace tolvane
