#include "shim_utils/configuration/pattern_index.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

using Section = PatternIndex::Section;
using Site = PatternIndex::Site;

// Whether a pattern whose last piece, with or without a text, begins at `start`
// matches a URL of that length.
bool endMatches(const Section& section, unsigned start, unsigned urlLength) {
    return !section.atEnd || urlLength - std::min(start, urlLength) == section.lastLength;
}

// The categories of patterns without any text.
std::uint32_t findTextless(const Site& site, unsigned urlLength) {
    std::uint32_t categories = 0;
    for (unsigned number = 1; number <= PatternIndex::kSections; ++number) {
        const unsigned c = (number - 1) / kMaxSections;
        const Section& section = site.sections[number];
        if ((site.textless[c] >> (number - 1) % kMaxSections & 1) != 0 &&
            endMatches(section, section.lastReach, urlLength)) {
            categories |= 1U << c;
        }
    }
    return categories;
}

// The state of one pass over a URL.
class Search {
  public:
    Search(const Site& site, const CategoryConfig* config, Bytes url)
        : site_(site),
          config_(config),
          url_(url.data),
          urlLength_(static_cast<unsigned>(url.length)),
          alive_(site.numAnywhere) {
        const std::size_t used = offsetof(PatternIndex::Lists, first) + site.numPieces + 1;
        std::memcpy(&lists_, &site.lists, used);
        for (unsigned section = site.deferred, next; section != 0; section = next) {
            next = lists_.waiters[section].next;
            const Section& waiting = site.sections[section];
            dueAt_[section] = waiting.reach[0];
            defer(section);
        }
    }

    // `piece` is the longest piece that ends at `end`.
    void found(unsigned piece, unsigned end) {
        if (end >= firstDue_) resumeDue(end);
        if (lists_.covered.has(piece)) occurs(piece, end);
    }

    // Whether a pattern can still match. A pattern that must begin the URL counts only
    // after it has begun.
    bool alive() const { return alive_ != 0; }
    std::uint32_t categories() const { return categories_; }

  private:
    unsigned lengthOf(unsigned piece) const { return site_.pieces[piece].length; }

    // Advances the sections that wait for the piece or for a suffix of it.
    [[gnu::noinline]] void occurs(unsigned piece, unsigned end) {
        do {
            if (lists_.first[piece] == 0) continue;
            const unsigned start = end - lengthOf(piece);
            unsigned section = lists_.clear(piece, site_.pieces);
            while (section != 0) {
                const auto [next, index] = lists_.waiters[section];
                if (index > 0 && dueAt_[section] > end) {
                    defer(section);
                } else {
                    advance(section, index, start, end);
                }
                section = next;
            }
        } while (lists_.covered.has(piece = site_.pieces[piece].shorter));
    }

    void defer(unsigned section) {
        firstDue_ = std::min(firstDue_, dueAt_[section]);
        lists_.waiters[section].next = deferred_;
        deferred_ = static_cast<std::uint8_t>(section);
    }

    // Moves the deferred sections that are due to their pieces' lists.
    [[gnu::noinline]] void resumeDue(unsigned end) {
        unsigned section = deferred_;
        deferred_ = 0;
        firstDue_ = kNever;
        while (section != 0) {
            const unsigned next = lists_.waiters[section].next;
            if (dueAt_[section] > end) {
                defer(section);
            } else {
                const unsigned index = lists_.waiters[section].index;
                lists_.add(section, site_.sections[section].piece[index], site_.pieces);
            }
            section = next;
        }
    }

    // Advances a section whose piece of that index occurred at `start` to `end`. A
    // section that does not wait afterwards has matched or cannot match, because
    // only the first occurrence of a piece counts.
    void advance(unsigned number, unsigned index, unsigned start, unsigned end) {
        const Section& section = site_.sections[number];
        if (section.atStart && index == 0) {
            if (start != 0) return;
            ++alive_;
        }
        if (++index == section.numPieces) return complete(number, start);
        const unsigned dueAt = start + section.reach[index];
        if (dueAt <= end) return advanceAfterLongText(number, index, start, end);
        waitFor(number, index, dueAt);
    }

    // The same if the next piece may have occurred already, which is possible after
    // a text that is longer than stated.
    [[gnu::noinline]] void advanceAfterLongText(unsigned number, unsigned index, unsigned start,
                                                unsigned end) {
        const Section& section = site_.sections[number];
        for (; index < section.numPieces; ++index) {
            const unsigned piece = section.piece[index];
            const unsigned dueAt = start + section.reach[index];
            if (dueAt > end) return waitFor(number, index, dueAt);
            start = findAfter(piece, dueAt - lengthOf(piece), end);
            if (start == end) return waitFor(number, index, end + 1);
        }
        complete(number, start);
    }

    void waitFor(unsigned number, unsigned index, unsigned dueAt) {
        dueAt_[number] = dueAt;
        lists_.waiters[number].index = static_cast<std::uint8_t>(index);
        lists_.add(number, site_.sections[number].piece[index], site_.pieces);
    }

    void complete(unsigned number, unsigned start) {
        --alive_;
        const Section& section = site_.sections[number];
        if (endMatches(section, start + section.lastReach, urlLength_))
            categories_ |= 1U << (number - 1) / kMaxSections;
    }

    // The position of the piece's first occurrence within from..end; `end` if there
    // is none. The caller searches only after a piece that is longer than stated,
    // so the range is shorter than kPieceSize.
    unsigned findAfter(unsigned piece, unsigned from, unsigned end) const {
        const unsigned place = site_.pieces[piece].place;
        const UrlSection& section = config_[place / (kMaxSections * kMaxPieces)]
                                        .sections[place / kMaxPieces % kMaxSections];
        const char* text = section.piece[place % kMaxPieces];
        for (; end - from >= lengthOf(piece); ++from) {
            if (std::memcmp(url_ + from, text, lengthOf(piece)) == 0) return from;
        }
        return end;
    }

    static constexpr std::uint32_t kNever = ~std::uint32_t{0};

    const Site& site_;
    const CategoryConfig* const config_;  // of the site
    const char* const url_;
    const unsigned urlLength_;
    std::uint32_t categories_ = 0;
    unsigned alive_;  // patterns that may begin anywhere or have begun, and have not ended
    std::uint32_t firstDue_ = kNever;  // position at which the first deferred section is due
    std::uint8_t deferred_ = 0;        // first deferred section
    PatternIndex::Lists lists_;
    // Earliest end of the piece that each section waits for, unless it is the first.
    std::uint32_t dueAt_[PatternIndex::kSections + 1];
};

}  // namespace

// Removes from `covered` the pieces that no other piece's list covers.
void PatternIndex::Lists::uncover(unsigned piece, const Piece* pieces) {
    const unsigned last = pieces[piece].last;
    covered.remove(piece);
    if (piece == last) return;
    covered.remove(piece + 1, last);
    for (unsigned other = piece + 1; other <= last; ++other) {
        if (first[other] != 0) {
            cover(other, pieces[other].last);
            other = pieces[other].last;
            continue;
        }
        std::uint64_t lists = 0;  // eight empty lists at a time
        while (lists == 0 && last - other >= sizeof lists) {
            std::memcpy(&lists, first + other + 1, sizeof lists);
            if (lists == 0) other += sizeof lists;
        }
    }
}

std::uint32_t findPatterns(const PatternIndex& index, const ConfigInfo& config, int s, Bytes url) {
    const Site& site = index.sites[s];
    const std::uint32_t textless =
        site.hasTextless ? findTextless(site, static_cast<unsigned>(url.length)) : 0;
    if (site.numNodes == 0) return textless;
    if (searching) return textless;
    searching = true;
    const PatternAutomaton automaton(index, s);
    static_assert(sizeof(Search) <= kSearchSize && alignof(Search) <= 16);
    Search& search = *new (searchMemory()) Search(site, config.categories[s], url);
    const char* p = url.data;
    const char* end = url.data + url.length;
    for (bool atStart = true; p != end && (atStart || search.alive()); atStart = false) {
        unsigned node;  // most bytes begin no piece
        do {
            node = automaton.fromRoot(static_cast<unsigned char>(*p++));
        } while (node == 0 && p != end);
        while (node != 0) {
            const unsigned piece = automaton.pieceAt(node);
            if (piece != 0) search.found(piece, static_cast<unsigned>(p - url.data));
            if (p == end) break;
            node = automaton.step(node, static_cast<unsigned char>(*p++));
        }
    }
    searching = false;
    return search.categories() | textless;
}

}  // namespace tolvane
