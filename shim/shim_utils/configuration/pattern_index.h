// Finds the URL patterns that a URL matches in one pass over it, however many
// patterns there are and whatever the URL holds.
//
// The pieces of all patterns of a site make one Aho-Corasick automaton, built
// when a configuration is taken. It reports every occurrence of every piece in
// the order of their ends. Each pattern waits for one piece, in the list of
// those that wait for it; when it occurs they go on to their next one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shim_utils/platform/text.h"
#include "tolvane/segment_format.h"

namespace tolvane {

struct PatternIndex {
    static constexpr int kSections = kMaxCategories * kMaxSections;  // of one site
    static constexpr int kPieces = kSections * kMaxPieces;           // of one site
    // Nodes for all sites together. Patterns of usual length need far fewer; a
    // site for which too few are left has its patterns matched one by one.
    static constexpr int kNodes = 32768;
    // Nodes with more children than kFewChildren have a row that holds the next
    // node for every byte, as long as there are rows; a site's root always has.
    static constexpr int kRows = 128;
    static constexpr int kFewChildren = 8;
    static constexpr std::uint16_t kHasRow = 0xFFFF;

    // The text that leads from the root to the node is the longest end of what
    // has been read that begins some piece. Node 0 is none.
    struct Node {
        std::uint16_t next;         // its first child, the others behind it; or its row
        std::uint16_t numChildren;  // or kHasRow
        std::uint16_t shorter;      // node of the next shorter such end
        std::uint16_t piece;        // longest piece that ends here; 0: none
    };
    // A distinct text. Piece 0 is none.
    struct Piece {
        std::uint16_t shorter;  // next shorter piece that ends where this one does
        std::uint16_t length;
    };
    // A pattern. Section 0 is none, the others are numbered by category.
    struct Section {
        std::uint16_t piece[kMaxPieces];
        std::uint8_t numPieces;  // 0: not in the index
        bool atStart;            // the first piece must begin the URL
        bool atEnd;              // the last piece must end it
    };
    // Which sections wait for which piece.
    struct Lists {
        struct {
            std::uint8_t next;   // next section that waits for the same piece
            std::uint8_t index;  // of that piece in this one
        } waiters[kSections + 1];
        std::uint8_t first[kPieces + 1];  // section that waits for each piece; only numPieces + 1
    };
    struct Site {
        std::uint16_t root;  // 0: no pattern is in the index
        std::uint16_t numPieces;
        std::uint8_t numAnywhere;            // patterns that may begin behind the URL's start
        bool hasPlain;                       // some pattern is not in the index
        std::uint8_t plain[kMaxCategories];  // bit k: section k is not
        Piece pieces[kPieces + 1];
        Section sections[kSections + 1];
        Lists lists;  // at the start of a URL
    };

    Site sites[kMaxSites];
    int numNodes;
    int numRows;
    Node nodes[kNodes];
    unsigned char bytes[kNodes];  // that lead to each node from its parent
    std::uint16_t rows[kRows][256];

    const std::uint16_t* rootRow(unsigned root) const { return rows[nodes[root].next]; }

    // The node that `byte` leads to, in the automaton with that root.
    unsigned step(unsigned node, unsigned char byte, unsigned root) const {
        for (; node != root; node = nodes[node].shorter) {
            const Node& at = nodes[node];
            if (at.numChildren == kHasRow) return rows[at.next][byte];
            for (unsigned child = at.next; child < at.next + unsigned{at.numChildren}; ++child) {
                if (bytes[child] == byte) return child;
            }
        }
        return rootRow(root)[byte];
    }
};

// Builds the index of all patterns of `config`, which is bounded. Left out are
// those without a piece and those with a piece whose stated length is not its
// own: the one kind needs no search, the other no speed.
void buildPatternIndex(PatternIndex& index, const ConfigInfo& config);

// The categories of site `s` one of whose patterns in the index `url` matches:
// bit c for category c. The URL holds no NUL.
std::uint32_t findPatterns(const PatternIndex& index, int s, Bytes url);

}  // namespace tolvane
