#include "shim_utils/configuration/pattern_index.h"

#include <cstring>

namespace tolvane {
namespace {

using Site = PatternIndex::Site;

// One pass over a URL: which pattern waits for what.
class Search {
  public:
    Search(const Site& site, std::size_t urlLength)
        : site_(site), urlLength_(urlLength), alive_(site.numAnywhere) {
        const std::size_t used = offsetof(PatternIndex::Lists, first) + site.numPieces + 1;
        std::memcpy(&lists_, &site.lists, used);
    }

    // A text that is `piece` ends at `end`.
    void found(unsigned piece, std::size_t end) {
        unsigned section = lists_.first[piece];
        if (section == 0) return;
        const std::size_t start = end - site_.pieces[piece].length;
        lists_.first[piece] = 0;
        while (section != 0) {
            unsigned next = lists_.waiters[section].next;
            goOn(section, piece, start, end);
            section = next;
        }
    }

    // Whether a pattern can still match, one that must begin at the start left aside.
    bool alive() const { return alive_ != 0; }
    std::uint32_t categories() const { return categories_; }

  private:
    void wait(unsigned section, unsigned piece) {
        lists_.waiters[section].next = lists_.first[piece];
        lists_.first[piece] = static_cast<std::uint8_t>(section);
    }

    // Takes a section that waited for the piece further. One that goes back into
    // no list has matched, or cannot any more: only the first occurrence of a
    // piece counts.
    void goOn(unsigned number, unsigned piece, std::size_t start, std::size_t end) {
        const PatternIndex::Section& section = site_.sections[number];
        const unsigned index = lists_.waiters[number].index;
        const bool anchored = index == 0 && section.atStart;
        if (anchored && start != 0) return;
        if (index > 0 && start < from_[number]) {
            wait(number, piece);
            return;
        }
        if (anchored) ++alive_;
        if (index + 1 < section.numPieces) {
            lists_.waiters[number].index = static_cast<std::uint8_t>(index + 1);
            from_[number] = static_cast<std::uint32_t>(end);
            wait(number, section.piece[index + 1]);
            return;
        }
        --alive_;
        if (!section.atEnd || end == urlLength_) categories_ |= 1U << (number - 1) / kMaxSections;
    }

    const Site& site_;
    const std::size_t urlLength_;
    std::uint32_t categories_ = 0;
    unsigned alive_;  // patterns that may begin anywhere or have begun, and have not ended
    PatternIndex::Lists lists_;
    // Where the piece that each section waits for may begin, unless it is the first.
    std::uint32_t from_[PatternIndex::kSections + 1];
};

}  // namespace

std::uint32_t findPatterns(const PatternIndex& index, int s, Bytes url) {
    const Site& site = index.sites[s];
    const unsigned root = site.root;
    if (root == 0) return 0;
    const std::uint16_t* rootRow = index.rootRow(root);
    Search search(site, url.length);
    const char* p = url.data;
    const char* end = url.data + url.length;
    for (bool atStart = true; p != end && (atStart || search.alive()); atStart = false) {
        unsigned node;  // most bytes begin no piece
        do {
            node = rootRow[static_cast<unsigned char>(*p++)];
        } while (node == root && p != end);
        while (node != root) {
            for (unsigned piece = index.nodes[node].piece; piece != 0;
                 piece = site.pieces[piece].shorter) {
                search.found(piece, static_cast<std::size_t>(p - url.data));
            }
            if (p == end) break;
            node = index.step(node, static_cast<unsigned char>(*p++), root);
        }
    }
    return search.categories();
}

}  // namespace tolvane
