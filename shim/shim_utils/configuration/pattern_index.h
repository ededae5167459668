// Finds the URL patterns that a URL matches in one pass over the URL, for any
// number of patterns and any content.
//
// The pieces of all patterns of a site form one Aho-Corasick automaton, built when
// a configuration is copied. At each byte of the URL it reports the longest piece
// that ends there. Each piece has a list of the patterns that wait for it. When
// the piece occurs, each of these patterns advances to its next piece.
//
// Any local user can write the patterns, so the cost of a pattern is bounded:
//  - The pieces that end with a given piece have the numbers that follow its own.
//    A set contains all pieces that end with a piece that a pattern waits for. If
//    a piece is not in the set, its shorter suffixes need no examination.
//  - If a piece occurs before the position at which it may begin, the pattern is
//    deferred: it is in no list until the piece can end.
//  - A stated length that differs from the text's length only changes where the
//    next piece may begin. So does a piece without text, which matches anywhere;
//    the index does not contain it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "shim_utils/configuration/piece_set.h"
#include "shim_utils/platform/text.h"
#include "tolvane/segment_format.h"

namespace tolvane {

struct PatternIndex {
    static constexpr int kSections = kMaxCategories * kMaxSections;  // of one site
    static constexpr int kPieces = kSections * kMaxPieces;           // of one site
    // A root, and a node for every byte of every piece. Patterns of usual length
    // need a tenth of them; pages never written cost no memory.
    static constexpr int kSiteNodes = 1 + kPieces * (kPieceSize - 1);
    static constexpr int kNodes = kMaxSites * kSiteNodes;
    // Roots and nodes with more than kFewChildren children have a row that holds the
    // next node for every byte. Each such node adds at least kFewChildren leaves to
    // the tree, and the tree has no more leaves than pieces.
    static constexpr int kFewChildren = 6;
    static constexpr int kRows = kMaxSites * (1 + kPieces / kFewChildren);
    static constexpr std::uint16_t kHasRow = 0xFFFF;

    // The text on the path from the root to the current node is the longest suffix
    // of the bytes read that is a prefix of a piece. Nodes are numbered within their
    // site; node 0 is the root.
    struct Node {
        std::uint16_t next;         // first child, the others follow it; or its row
        std::uint16_t numChildren;  // or kHasRow
        std::uint16_t shorter;      // node of the next shorter such suffix
        std::uint16_t piece;        // longest piece that ends here; 0: none
    };
    // A distinct text. Number 0 is not used.
    struct Piece {
        std::uint16_t shorter;  // longest other piece that is a suffix of this piece
        std::uint16_t last;     // the pieces from this number to `last` end with this piece
        std::uint16_t place;    // index of its text among all texts of the site in the block
        std::uint16_t length;
    };
    // A pattern. Number 0 is not used; the others are numbered by category.
    struct Section {
        std::uint16_t piece[kMaxPieces];
        // Distances from the beginning of the previous piece, or of the URL: to the
        // earliest end of each piece, and to the beginning of the pattern's last
        // piece, which may have no text.
        std::uint16_t reach[kMaxPieces];
        std::uint16_t lastReach;
        std::uint16_t lastLength;  // stated length of the last piece
        std::uint8_t numPieces;    // pieces with a text
        bool atStart;              // the first piece must begin the URL
        bool atEnd;                // the last piece must end it
    };
    using Pieces = PieceSet<kPieces + 1>;
    // For each piece, the list of sections that wait for it.
    struct Lists {
        struct {
            std::uint8_t next;   // next section that waits for the same piece
            std::uint8_t index;  // of that piece in this section
        } waiters[kSections + 1];
        Pieces covered;                   // pieces that end with a piece that has waiting sections
        std::uint8_t first[kPieces + 1];  // first section of each list; numPieces + 1 are used

        // Adds a section to the piece's list.
        void add(unsigned section, unsigned piece, const Piece* pieces) {
            if (first[piece] == 0) cover(piece, pieces[piece].last);
            waiters[section].next = first[piece];
            first[piece] = static_cast<std::uint8_t>(section);
        }
        // Empties the piece's list; returns its first section.
        unsigned clear(unsigned piece, const Piece* pieces) {
            const unsigned section = first[piece];
            first[piece] = 0;
            if (!covered.has(pieces[piece].shorter)) uncover(piece, pieces);
            return section;
        }

      private:
        void cover(unsigned piece, unsigned last) {
            covered.add(piece);
            if (piece != last) covered.add(piece + 1, last);
        }
        void uncover(unsigned piece, const Piece* pieces);
    };
    struct Site {
        std::uint32_t firstNode;  // in `nodes` and `bytes`
        std::uint16_t numNodes;   // 0: no pattern has a piece with a text
        std::uint16_t numPieces;
        std::uint8_t numAnywhere;               // patterns that may begin after the URL's start
        std::uint8_t deferred;                  // first section that is deferred at the start
        bool hasTextless;                       // a pattern has no piece with a text
        std::uint8_t textless[kMaxCategories];  // bit k: section k
        Piece pieces[kPieces + 1];
        Section sections[kSections + 1];
        Lists lists;  // at the start of a URL
    };

    Site sites[kMaxSites];
    int numNodes;
    int numRows;
    Node nodes[kNodes];
    unsigned char bytes[kNodes];     // byte that leads to each node from its parent
    std::uint16_t rows[kRows][256];  // the sites' roots come first
};

// The automaton of one site.
class PatternAutomaton {
  public:
    PatternAutomaton(const PatternIndex& index, int s)
        : nodes_(index.nodes + index.sites[s].firstNode),
          bytes_(index.bytes + index.sites[s].firstNode),
          rows_(index.rows),
          rootRow_(index.rows[s]) {}

    unsigned pieceAt(unsigned node) const { return nodes_[node].piece; }
    unsigned fromRoot(unsigned char byte) const { return rootRow_[byte]; }
    unsigned step(unsigned node, unsigned char byte) const {
        for (; node != 0; node = nodes_[node].shorter) {
            const PatternIndex::Node& at = nodes_[node];
            if (at.numChildren == PatternIndex::kHasRow) return rows_[at.next][byte];
            for (unsigned child = at.next; child < at.next + unsigned{at.numChildren}; ++child) {
                if (bytes_[child] == byte) return child;
            }
        }
        return rootRow_[byte];
    }

  private:
    const PatternIndex::Node* nodes_;
    const unsigned char* bytes_;
    const std::uint16_t (*rows_)[256];
    const std::uint16_t* rootRow_;
};

// Builds the index of all patterns of `config`, which is bounded.
void buildPatternIndex(PatternIndex& index, const ConfigInfo& config);

// The categories of site `s` with a pattern that `url` matches: bit c for category
// c. The index is built from `config`; the URL contains no NUL.
std::uint32_t findPatterns(const PatternIndex& index, const ConfigInfo& config, int s, Bytes url);

}  // namespace tolvane
