// A set of the pieces of one site's patterns.
#pragma once

#include <cstdint>

namespace tolvane {

template <unsigned size>
class PieceSet {
  public:
    bool has(unsigned piece) const { return (words_[piece / kBits] >> piece % kBits & 1) != 0; }

    void add(unsigned piece) { words_[piece / kBits] |= std::uint32_t{1} << piece % kBits; }
    void remove(unsigned piece) { words_[piece / kBits] &= ~(std::uint32_t{1} << piece % kBits); }

    // Adds or removes the pieces from..last.
    void add(unsigned from, unsigned last) {
        each(from, last, [](std::uint32_t& word, std::uint32_t mask) { word |= mask; });
    }
    void remove(unsigned from, unsigned last) {
        each(from, last, [](std::uint32_t& word, std::uint32_t mask) { word &= ~mask; });
    }

  private:
    static constexpr unsigned kBits = 32;
    static constexpr unsigned kWords = (size + kBits - 1) / kBits;
    static constexpr std::uint32_t kAll = ~std::uint32_t{0};

    template <typename Change>
    void each(unsigned from, unsigned last, Change change) {
        std::uint32_t mask = kAll << from % kBits;
        unsigned word = from / kBits;
        for (; word < last / kBits; ++word, mask = kAll) change(words_[word], mask);
        change(words_[word], mask & kAll >> (kBits - 1 - last % kBits));
    }

    std::uint32_t words_[kWords];
};

}  // namespace tolvane
