// Finds the URL patterns that a URL matches in one pass over it, however many
// patterns there are and whatever they and the URL hold.
//
// The pieces of all patterns of a site make one Aho-Corasick automaton, built
// when a configuration is taken. It reports at each byte of the URL the longest
// piece that ends there. Each pattern waits for one piece, in the list of those
// that wait for it; when it occurs they go on to their next one.
//
// Anybody local can write the patterns, so no pattern may cost more than others:
//  - Pieces are numbered so that those that end with a given piece follow it
//    directly. A set holds all pieces that end with some piece that is waited
//    for; what is not in it needs no look at the shorter pieces that end there.
//  - When a piece occurs that must not have begun yet, the pattern waits aside, in
//    no list, until that piece can end.
//  - A stated length other than the text's only changes where the next piece may
//    begin, and so does a piece without text, which occurs wherever it is looked
//    for; it is no piece here.
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
    // need a tenth; untouched pages cost no memory.
    static constexpr int kSiteNodes = 1 + kPieces * (kPieceSize - 1);
    static constexpr int kNodes = kMaxSites * kSiteNodes;
    // Roots and nodes with more children than kFewChildren have a row that holds
    // the next node for every byte. Each of the latter adds kFewChildren ends or
    // more to the tree, and there are no more ends than pieces.
    static constexpr int kFewChildren = 6;
    static constexpr int kRows = kMaxSites * (1 + kPieces / kFewChildren);
    static constexpr std::uint16_t kHasRow = 0xFFFF;

    // The text that leads from the root to the node is the longest end of what
    // has been read that begins some piece. Nodes are numbered within their site;
    // node 0 is the root.
    struct Node {
        std::uint16_t next;         // its first child, the others behind it; or its row
        std::uint16_t numChildren;  // or kHasRow
        std::uint16_t shorter;      // node of the next shorter such end
        std::uint16_t piece;        // longest piece that ends here; 0: none
    };
    // A distinct text. Piece 0 is none.
    struct Piece {
        std::uint16_t shorter;  // next shorter piece that ends where this one does
        std::uint16_t last;     // this and the following to `last` end with this piece
        std::uint16_t place;    // of its text, among all of the site in the block
        std::uint16_t length;
    };
    // A pattern. Section 0 is none, the others are numbered by category.
    struct Section {
        std::uint16_t piece[kMaxPieces];
        // How far behind the beginning of the piece before, or of the URL, each
        // piece ends at the earliest, and the pattern's last one begins, which may
        // have no text.
        std::uint16_t reach[kMaxPieces];
        std::uint16_t lastReach;
        std::uint16_t lastLength;  // that the last one is stated to have
        std::uint8_t numPieces;    // with a text
        bool atStart;              // the first piece must begin the URL
        bool atEnd;                // the last piece must end it
    };
    using Pieces = PieceSet<kPieces + 1>;
    // Which sections wait for which piece.
    struct Lists {
        struct {
            std::uint8_t next;   // next section that waits for the same piece
            std::uint8_t index;  // of that piece in this one
        } waiters[kSections + 1];
        Pieces covered;                   // pieces that end with one that is waited for
        std::uint8_t first[kPieces + 1];  // section that waits for each piece; only numPieces + 1

        // Lets a section wait for the piece.
        void add(unsigned section, unsigned piece, const Piece* pieces) {
            if (first[piece] == 0) cover(piece, pieces[piece].last);
            waiters[section].next = first[piece];
            first[piece] = static_cast<std::uint8_t>(section);
        }
        // Empties the list of those that wait for the piece; returns its first section.
        unsigned take(unsigned piece, const Piece* pieces) {
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
        std::uint8_t numAnywhere;               // patterns that may begin behind the URL's start
        std::uint8_t aside;                     // first section that must wait aside at the start
        bool hasTextless;                       // some pattern has no piece with a text
        std::uint8_t textless[kMaxCategories];  // bit k: section k
        Piece pieces[kPieces + 1];
        Section sections[kSections + 1];
        Lists lists;  // at the start of a URL
    };

    Site sites[kMaxSites];
    int numNodes;
    int numRows;
    Node nodes[kNodes];
    unsigned char bytes[kNodes];     // that lead to each node from its parent
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
    // The node that `byte` leads to.
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

// The categories of site `s` one of whose patterns `url` matches: bit c for
// category c. The index is that of `config`; the URL holds no NUL.
std::uint32_t findPatterns(const PatternIndex& index, const ConfigInfo& config, int s, Bytes url);

}  // namespace tolvane
