#include <algorithm>
#include <cstring>

#include "shim_utils/configuration/pattern_index.h"

namespace tolvane {
namespace {

using Site = PatternIndex::Site;
using Node = PatternIndex::Node;
using Piece = PatternIndex::Piece;

template <typename Number>
std::uint16_t narrow(Number value) {
    return static_cast<std::uint16_t>(value);
}

// A piece of a pattern.
struct Entry {
    const char* text;
    std::uint16_t length;
    std::uint16_t place;  // among the site's pieces in the block
    std::uint8_t section;
    std::uint8_t index;  // among the section's pieces with a text

    bool operator<(const Entry& other) const { return std::strcmp(text, other.text) < 0; }
};

// Builds the automaton of one site, level by level. The entries are sorted, so
// entries with a common prefix are adjacent, and a node is a range of entries.
class SiteBuilder {
  public:
    void build(PatternIndex& index, const ConfigInfo& config, int s);

  private:
    struct Range {
        std::uint16_t from;
        std::uint16_t to;
    };
    // The nodes at one depth.
    struct Level {
        int firstNode;
        int size;
        Range ranges[PatternIndex::kPieces];
    };

    void addSection(const UrlSection& section, int number);
    void addSections(const ConfigInfo& config);
    void addLevels();
    void addPiece(Node& node, Range range, int length);
    void addChildren(int parent, Range range, int depth, Level& children);
    void putChildren(int parent, std::uint16_t* row) const;
    void makeRootRow();
    void makeRow(int number);
    void putPiecesInOrder();
    void putIntoLists();
    unsigned char byteAt(int entry, int depth) const {
        return static_cast<unsigned char>(entries_[entry].text[depth]);
    }

    PatternIndex* index_;
    Site* site_;
    int s_;
    Node* nodes_;  // of the site
    unsigned char* bytes_;
    Entry entries_[PatternIndex::kPieces];
    int numEntries_;
    Level levels_[2];
};

// Adds the section's pieces that have a text. Pieces without a text match
// anywhere, so they only add their stated lengths to `skip`.
void SiteBuilder::addSection(const UrlSection& section, int number) {
    const int pieces = section.numPieces;
    PatternIndex::Section& added = site_->sections[number];
    added.atEnd = pieces > 0 && section.trailingWildcard == 0;
    // The whole URL is compared with such a pattern, and the stated length is ignored.
    const bool whole = pieces == 1 && section.leadingWildcard == 0 && added.atEnd;
    std::uint16_t skip = 0;  // distance from the previous piece with a text
    for (int i = 0; i < pieces; ++i) {
        const std::size_t length = std::strlen(section.piece[i]);
        const std::uint16_t stated = whole ? narrow(length) : narrow(section.pieceLength[i]);
        if (length > 0) {
            if (i == 0) added.atStart = section.leadingWildcard == 0;
            const int place = (number - 1) * kMaxPieces + i;
            entries_[numEntries_++] = {section.piece[i], narrow(length), narrow(place),
                                       static_cast<std::uint8_t>(number), added.numPieces};
            added.reach[added.numPieces++] = narrow(skip + length);
            skip = 0;
        }
        if (i + 1 == pieces) {
            added.lastReach = skip;
            added.lastLength = stated;
        } else {
            skip = narrow(skip + stated);
        }
    }
}

void SiteBuilder::addSections(const ConfigInfo& config) {
    numEntries_ = 0;
    for (int c = 0; c < config.numCategories[s_]; ++c) {
        const CategoryConfig& category = config.categories[s_][c];
        for (int k = 0; k < category.numSections; ++k) {
            const int number = c * kMaxSections + k + 1;
            addSection(category.sections[k], number);
            if (site_->sections[number].numPieces == 0) {
                site_->textless[c] = static_cast<std::uint8_t>(site_->textless[c] | 1U << k);
                site_->hasTextless = true;
            }
        }
    }
    // Heap sort uses no stack; this runs inside a server's call.
    std::make_heap(entries_, entries_ + numEntries_);
    std::sort_heap(entries_, entries_ + numEntries_);
}

void SiteBuilder::addPiece(Node& node, Range range, int length) {
    int number = ++site_->numPieces;
    site_->pieces[number] = {node.piece, 0, entries_[range.from].place, narrow(length)};
    node.piece = narrow(number);
    for (int i = range.from; i < range.to; ++i) {
        site_->sections[entries_[i].section].piece[entries_[i].index] = narrow(number);
    }
}

void SiteBuilder::putChildren(int parent, std::uint16_t* row) const {
    const Node& node = nodes_[parent];
    for (int i = 0; i < node.numChildren; ++i) row[bytes_[node.next + i]] = narrow(node.next + i);
}

void SiteBuilder::makeRootRow() {
    std::uint16_t* row = index_->rows[s_];
    std::memset(row, 0, sizeof index_->rows[s_]);
    putChildren(0, row);
    nodes_[0].next = narrow(s_);
    nodes_[0].numChildren = PatternIndex::kHasRow;
}

// Makes the row of a node: the row of the nearest shorter suffix that has a row,
// overwritten with the children of the nodes in between and of the node itself.
void SiteBuilder::makeRow(int number) {
    std::uint16_t chain[kPieceSize];
    int size = 0;
    int at = number;
    for (; nodes_[at].numChildren != PatternIndex::kHasRow; at = nodes_[at].shorter) {
        chain[size++] = narrow(at);
    }
    std::uint16_t* row = index_->rows[index_->numRows];
    std::memcpy(row, index_->rows[nodes_[at].next], sizeof index_->rows[0]);
    while (size > 0) putChildren(chain[--size], row);
    nodes_[number].next = narrow(index_->numRows++);
    nodes_[number].numChildren = PatternIndex::kHasRow;
}

void SiteBuilder::addChildren(int parent, Range range, int depth, Level& children) {
    const PatternAutomaton automaton(*index_, s_);
    Node& node = nodes_[parent];
    node.next = site_->numNodes;
    for (int from = range.from, to; from < range.to; from = to) {
        unsigned char byte = byteAt(from, depth);
        for (to = from; to < range.to && byteAt(to, depth) == byte;) ++to;
        // Nodes of shorter texts are complete, because earlier levels created them.
        unsigned shorter = parent == 0 ? 0 : automaton.step(node.shorter, byte);
        bytes_[site_->numNodes] = byte;
        nodes_[site_->numNodes++] = {0, 0, narrow(shorter), 0};
        ++node.numChildren;
        children.ranges[children.size++] = {narrow(from), narrow(to)};
    }
    if (parent == 0) {
        makeRootRow();
    } else if (node.numChildren > PatternIndex::kFewChildren) {
        makeRow(parent);
    }
}

void SiteBuilder::addLevels() {
    Level* level = &levels_[0];
    Level* children = &levels_[1];
    level->firstNode = 0;
    level->size = 1;
    level->ranges[0] = {0, narrow(numEntries_)};
    site_->numNodes = 1;
    nodes_[0] = {};
    for (int depth = 0; level->size > 0; ++depth) {
        children->firstNode = site_->numNodes;
        children->size = 0;
        for (int i = 0; i < level->size; ++i) {
            Node& node = nodes_[level->firstNode + i];
            node.piece = nodes_[node.shorter].piece;
            // The entries that end here come first in the range.
            Range range = level->ranges[i];
            Range ending = {range.from, range.from};
            while (ending.to < range.to && entries_[ending.to].length == depth) ++ending.to;
            if (ending.to > ending.from) addPiece(node, ending, depth);
            addChildren(level->firstNode + i, {ending.to, range.to}, depth, *children);
        }
        std::swap(level, children);
    }
}

// Renumbers the pieces, which are in the order of their lengths, so that the pieces
// that end with a given piece follow it.
void SiteBuilder::putPiecesInOrder() {
    static Piece before[PatternIndex::kPieces + 1];
    static std::uint16_t size[PatternIndex::kPieces + 1];    // pieces that end with it, and itself
    static std::uint16_t number[PatternIndex::kPieces + 1];  // new number
    static std::uint16_t unused[PatternIndex::kPieces + 1];  // next free number after it
    const int pieces = site_->numPieces;
    std::memcpy(before, site_->pieces, sizeof before);
    std::fill_n(size, pieces + 1, std::uint16_t{1});
    for (int i = pieces; i > 0; --i)
        size[before[i].shorter] = narrow(size[before[i].shorter] + size[i]);
    unused[0] = 1;
    for (int i = 1; i <= pieces; ++i) {
        std::uint16_t& next = unused[before[i].shorter];
        number[i] = next;
        unused[i] = narrow(next + 1);
        next = narrow(next + size[i]);
        site_->pieces[number[i]] = {number[before[i].shorter], narrow(next - 1), before[i].place,
                                    before[i].length};
    }
    for (int i = 0; i < site_->numNodes; ++i) nodes_[i].piece = number[nodes_[i].piece];
    for (PatternIndex::Section& section : site_->sections) {
        for (int i = 0; i < section.numPieces; ++i) section.piece[i] = number[section.piece[i]];
    }
}

// Adds every pattern to the list of its first piece. If that piece may not begin at
// the start of the URL, the pattern is deferred.
void SiteBuilder::putIntoLists() {
    PatternIndex::Lists& lists = site_->lists;
    for (unsigned number = 1; number <= PatternIndex::kSections; ++number) {
        const PatternIndex::Section& section = site_->sections[number];
        if (section.numPieces == 0) continue;
        if (section.reach[0] == site_->pieces[section.piece[0]].length) {
            lists.add(number, section.piece[0], site_->pieces);
        } else {
            lists.waiters[number].next = site_->deferred;
            site_->deferred = static_cast<std::uint8_t>(number);
        }
        if (!section.atStart) ++site_->numAnywhere;
    }
}

void SiteBuilder::build(PatternIndex& index, const ConfigInfo& config, int s) {
    index_ = &index;
    site_ = &index.sites[s];
    s_ = s;
    std::memset(site_, 0, sizeof *site_);
    addSections(config);
    if (numEntries_ == 0) return;
    site_->firstNode = static_cast<std::uint32_t>(index.numNodes);
    nodes_ = &index.nodes[index.numNodes];
    bytes_ = &index.bytes[index.numNodes];
    addLevels();
    index.numNodes += site_->numNodes;
    putPiecesInOrder();
    putIntoLists();
}

}  // namespace

void buildPatternIndex(PatternIndex& index, const ConfigInfo& config) {
    static SiteBuilder builder;
    index.numNodes = 0;
    index.numRows = kMaxSites;
    for (int s = 0; s < config.numSites; ++s) builder.build(index, config, s);
}

}  // namespace tolvane
