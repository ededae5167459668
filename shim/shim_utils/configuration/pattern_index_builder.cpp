#include <algorithm>
#include <cstring>

#include "shim_utils/configuration/pattern_index.h"

namespace tolvane {
namespace {

using Site = PatternIndex::Site;
using Node = PatternIndex::Node;

template <typename Number>
std::uint16_t narrow(Number value) {
    return static_cast<std::uint16_t>(value);
}

// One piece of one pattern.
struct Entry {
    const char* text;
    std::uint16_t length;
    std::uint8_t section;
    std::uint8_t index;

    bool operator<(const Entry& other) const { return std::strcmp(text, other.text) < 0; }
};

// Builds the automaton of one site, level by level. The entries are sorted, so
// those that share a beginning stand together, and a node is a range of them.
class SiteBuilder {
  public:
    void build(PatternIndex& index, const ConfigInfo& config, int s);

  private:
    struct Range {
        std::uint16_t from;
        std::uint16_t to;
    };
    // The nodes whose texts are of one length.
    struct Level {
        int firstNode;
        int size;
        Range ranges[PatternIndex::kPieces];
    };

    void addSection(const UrlSection& section, int number);
    void addSections(const ConfigInfo& config, int s);
    int nodesNeeded() const;
    void addLevels();
    void addPiece(Node& node, Range range, int length);
    void addChildren(int parent, Range range, int depth, Level& children);
    void makeRow(int number);
    void putIntoLists();
    unsigned char byteAt(int entry, int depth) const {
        return static_cast<unsigned char>(entries_[entry].text[depth]);
    }

    PatternIndex* index_;
    Site* site_;
    Entry entries_[PatternIndex::kPieces];
    int numEntries_;
    Level levels_[2];
};

// Whether the index can hold the pattern.
bool isRegular(const UrlSection& section) {
    for (int i = 0; i < section.numPieces; ++i) {
        auto length = static_cast<std::int32_t>(std::strlen(section.piece[i]));
        if (length == 0 || length != section.pieceLength[i]) return false;
    }
    return section.numPieces > 0;
}

void SiteBuilder::addSection(const UrlSection& section, int number) {
    PatternIndex::Section& added = site_->sections[number];
    added.numPieces = static_cast<std::uint8_t>(section.numPieces);
    added.atStart = section.leadingWildcard == 0;
    added.atEnd = section.trailingWildcard == 0;
    for (int i = 0; i < section.numPieces; ++i) {
        entries_[numEntries_++] = {section.piece[i], narrow(section.pieceLength[i]),
                                   static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(i)};
    }
}

void SiteBuilder::addSections(const ConfigInfo& config, int s) {
    numEntries_ = 0;
    for (int c = 0; c < config.numCategories[s]; ++c) {
        const CategoryConfig& category = config.categories[s][c];
        for (int k = 0; k < category.numSections; ++k) {
            if (isRegular(category.sections[k])) {
                addSection(category.sections[k], c * kMaxSections + k + 1);
            } else {
                site_->plain[c] = static_cast<std::uint8_t>(site_->plain[c] | 1U << k);
                site_->hasPlain = true;
            }
        }
    }
    // By heap, which takes no stack: this runs inside a server's call.
    std::make_heap(entries_, entries_ + numEntries_);
    std::sort_heap(entries_, entries_ + numEntries_);
}

// A root, and a node for each byte that an entry does not share with the one before.
int SiteBuilder::nodesNeeded() const {
    int needed = 1;
    for (int i = 0; i < numEntries_; ++i) {
        int shared = 0;
        while (i > 0 && byteAt(i, shared) != '\0' && byteAt(i, shared) == byteAt(i - 1, shared)) {
            ++shared;
        }
        needed += entries_[i].length - shared;
    }
    return needed;
}

void SiteBuilder::addPiece(Node& node, Range range, int length) {
    int number = ++site_->numPieces;
    site_->pieces[number] = {node.piece, narrow(length)};
    node.piece = narrow(number);
    for (int i = range.from; i < range.to; ++i) {
        site_->sections[entries_[i].section].piece[entries_[i].index] = narrow(number);
    }
}

// The row of a node whose children are known.
void SiteBuilder::makeRow(int number) {
    Node& node = index_->nodes[number];
    std::uint16_t* row = index_->rows[index_->numRows];
    for (int byte = 0; byte < 256; ++byte) {
        row[byte] =
            narrow(number == site_->root
                       ? static_cast<unsigned>(number)
                       : index_->step(node.shorter, static_cast<unsigned char>(byte), site_->root));
    }
    for (int child = node.next; child < node.next + node.numChildren; ++child) {
        row[index_->bytes[child]] = narrow(child);
    }
    node.next = narrow(index_->numRows++);
    node.numChildren = PatternIndex::kHasRow;
}

void SiteBuilder::addChildren(int parent, Range range, int depth, Level& children) {
    Node& node = index_->nodes[parent];
    node.next = narrow(index_->numNodes);
    for (int from = range.from, to; from < range.to; from = to) {
        unsigned char byte = byteAt(from, depth);
        for (to = from; to < range.to && byteAt(to, depth) == byte;) ++to;
        // Nodes of shorter texts are complete: their levels came before this one.
        unsigned shorter =
            parent == site_->root ? site_->root : index_->step(node.shorter, byte, site_->root);
        index_->bytes[index_->numNodes] = byte;
        index_->nodes[index_->numNodes++] = {0, 0, narrow(shorter), 0};
        ++node.numChildren;
        children.ranges[children.size++] = {narrow(from), narrow(to)};
    }
    bool wide = node.numChildren > PatternIndex::kFewChildren;
    bool rowLeft = index_->numRows < PatternIndex::kRows - kMaxSites;
    if (parent == site_->root || (wide && rowLeft)) makeRow(parent);
}

void SiteBuilder::addLevels() {
    Level* level = &levels_[0];
    Level* children = &levels_[1];
    level->firstNode = site_->root = narrow(index_->numNodes);
    level->size = 1;
    level->ranges[0] = {0, narrow(numEntries_)};
    index_->nodes[index_->numNodes++] = {};
    for (int depth = 0; level->size > 0; ++depth) {
        children->firstNode = index_->numNodes;
        children->size = 0;
        for (int i = 0; i < level->size; ++i) {
            Node& node = index_->nodes[level->firstNode + i];
            node.piece = index_->nodes[node.shorter].piece;
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

// Every pattern waits for its first piece.
void SiteBuilder::putIntoLists() {
    for (int number = 1; number <= PatternIndex::kSections; ++number) {
        const PatternIndex::Section& section = site_->sections[number];
        if (section.numPieces == 0) continue;
        std::uint8_t& first = site_->lists.first[section.piece[0]];
        site_->lists.waiters[number].next = first;
        first = static_cast<std::uint8_t>(number);
        if (!section.atStart) ++site_->numAnywhere;
    }
}

void SiteBuilder::build(PatternIndex& index, const ConfigInfo& config, int s) {
    index_ = &index;
    site_ = &index.sites[s];
    std::memset(site_, 0, sizeof *site_);
    addSections(config, s);
    if (numEntries_ == 0) return;
    if (nodesNeeded() > PatternIndex::kNodes - index.numNodes) {
        std::memset(site_->plain, 0xFF, sizeof site_->plain);
        site_->hasPlain = true;
        return;
    }
    addLevels();
    putIntoLists();
}

}  // namespace

void buildPatternIndex(PatternIndex& index, const ConfigInfo& config) {
    static SiteBuilder builder;
    index.numNodes = 1;
    index.numRows = 0;
    for (int s = 0; s < config.numSites; ++s) builder.build(index, config, s);
}

}  // namespace tolvane
