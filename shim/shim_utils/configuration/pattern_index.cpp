#include "shim_utils/configuration/pattern_index.h"

#include <algorithm>
#include <cstring>

namespace tolvane {
namespace {

using Section = PatternIndex::Section;
using Site = PatternIndex::Site;

// Whether a pattern without further pieces matches a URL of that length, when
// its last piece, with a text or not, begins at `start`.
bool endsWell(const Section& section, unsigned start, unsigned urlLength) {
    return !section.atEnd || urlLength - std::min(start, urlLength) == section.lastLength;
}

// The categories of patterns without any text.
std::uint32_t findTextless(const Site& site, unsigned urlLength) {
    std::uint32_t categories = 0;
    for (unsigned number = 1; number <= PatternIndex::kSections; ++number) {
        const unsigned c = (number - 1) / kMaxSections;
        const Section& section = site.sections[number];
        if ((site.textless[c] >> (number - 1) % kMaxSections & 1) != 0 &&
            endsWell(section, section.lastReach, urlLength)) {
            categories |= 1U << c;
        }
    }
    return categories;
}

// One pass over a URL: which pattern waits for what.
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
        for (unsigned section = site.aside, next; section != 0; section = next) {
            next = lists_.waiters[section].next;
            const Section& waiting = site.sections[section];
            wakeAt_[section] = waiting.reach[0];
            wait(section);
        }
    }

    // What has been read up to `end` ends with `piece` and with no longer one.
    void found(unsigned piece, unsigned end) {
        if (end >= firstWake_) wake(end);
        if (lists_.covered.has(piece)) occurs(piece, end);
    }

    // Whether a pattern can still match, one that must begin at the start left aside.
    bool alive() const { return alive_ != 0; }
    std::uint32_t categories() const { return categories_; }

  private:
    unsigned lengthOf(unsigned piece) const { return site_.pieces[piece].length; }

    // Takes on those that wait for the piece or for one that it ends with.
    [[gnu::noinline]] void occurs(unsigned piece, unsigned end) {
        do {
            if (lists_.first[piece] == 0) continue;
            const unsigned start = end - lengthOf(piece);
            unsigned section = lists_.take(piece, site_.pieces);
            while (section != 0) {
                const auto [next, index] = lists_.waiters[section];
                if (index > 0 && wakeAt_[section] > end) {
                    wait(section);
                } else {
                    goOn(section, index, start, end);
                }
                section = next;
            }
        } while (lists_.covered.has(piece = site_.pieces[piece].shorter));
    }

    // Lets a section wait aside.
    void wait(unsigned section) {
        firstWake_ = std::min(firstWake_, wakeAt_[section]);
        lists_.waiters[section].next = aside_;
        aside_ = static_cast<std::uint8_t>(section);
    }

    // Puts those that have waited long enough into their pieces' lists.
    [[gnu::noinline]] void wake(unsigned end) {
        unsigned section = aside_;
        aside_ = 0;
        firstWake_ = kNever;
        while (section != 0) {
            const unsigned next = lists_.waiters[section].next;
            if (wakeAt_[section] > end) {
                wait(section);
            } else {
                const unsigned index = lists_.waiters[section].index;
                lists_.add(section, site_.sections[section].piece[index], site_.pieces);
            }
            section = next;
        }
    }

    // Takes a section further, whose piece of that index has begun at `start` and
    // ended at `end`. One that does not wait again has matched, or cannot any
    // more: only the first occurrence of a piece counts.
    void goOn(unsigned number, unsigned index, unsigned start, unsigned end) {
        const Section& section = site_.sections[number];
        if (section.atStart && index == 0) {
            if (start != 0) return;
            ++alive_;
        }
        if (++index == section.numPieces) return complete(number, start);
        const unsigned wakeAt = start + section.reach[index];
        if (wakeAt <= end) return goOnBehind(number, index, start, end);
        waitFor(number, index, wakeAt);
    }

    // The same where the next piece may have occurred already, as behind a text
    // that is longer than stated.
    [[gnu::noinline]] void goOnBehind(unsigned number, unsigned index, unsigned start,
                                      unsigned end) {
        const Section& section = site_.sections[number];
        for (; index < section.numPieces; ++index) {
            const unsigned piece = section.piece[index];
            const unsigned wakeAt = start + section.reach[index];
            if (wakeAt > end) return waitFor(number, index, wakeAt);
            start = findBehind(piece, wakeAt - lengthOf(piece), end);
            if (start == end) return waitFor(number, index, end + 1);
        }
        complete(number, start);
    }

    void waitFor(unsigned number, unsigned index, unsigned wakeAt) {
        wakeAt_[number] = wakeAt;
        lists_.waiters[number].index = static_cast<std::uint8_t>(index);
        lists_.add(number, site_.sections[number].piece[index], site_.pieces);
    }

    void complete(unsigned number, unsigned start) {
        --alive_;
        const Section& section = site_.sections[number];
        if (endsWell(section, start + section.lastReach, urlLength_))
            categories_ |= 1U << (number - 1) / kMaxSections;
    }

    // Where the piece begins first within from..end, which has been read; `end`
    // when it does not. That is looked up only behind a piece that is longer than
    // stated, so it is less than kPieceSize bytes.
    unsigned findBehind(unsigned piece, unsigned from, unsigned end) const {
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
    std::uint32_t firstWake_ = kNever;  // when the first of those aside has waited enough
    std::uint8_t aside_ = 0;            // first section that waits aside
    PatternIndex::Lists lists_;
    // Where the piece that each waits for can end, unless it is the first.
    std::uint32_t wakeAt_[PatternIndex::kSections + 1];
};

}  // namespace

// Makes what is covered by no piece but this no longer covered.
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
        std::uint64_t lists = 0;  // eight at a time while nothing is waited for
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
    const PatternAutomaton automaton(index, s);
    Search search(site, config.categories[s], url);
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
    return search.categories() | textless;
}

}  // namespace tolvane
