#include "support/records.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <utility>

namespace tolvane::test {
namespace {

template <class Block>
using Word = std::pair<const char*, std::uint32_t Block::*>;
constexpr Word<CounterBlock> kWords[] = {
    {"conn", &CounterBlock::connections},    {"req", &CounterBlock::requests},
    {"in", &CounterBlock::bytesReceived},    {"out", &CounterBlock::bytesSent},
    {"redir", &CounterBlock::redirects},     {"err", &CounterBlock::errors},
    {"cerr", &CounterBlock::clientErrors},   {"serr", &CounterBlock::serverErrors},
    {"drop", &CounterBlock::droppedRequests}};
constexpr Word<CategoryCounters> kCategoryWords[] = {{"req", &CategoryCounters::requests},
                                                     {"out", &CategoryCounters::bytesSent},
                                                     {"err", &CategoryCounters::errors},
                                                     {"drop", &CategoryCounters::droppedRequests}};

template <class Block, class Words>
void add(Block& sum, const Block& other, const Words& words) {
    for (const auto& [name, word] : words) sum.*word += other.*word;
}

template <class Number>
std::string field(const char* name, Number value) {
    if (value == 0) return "";
    std::ostringstream text;
    text << " " << name << std::setprecision(17) << value;
    return text.str();
}

template <class Block, class Words>
std::string fields(const Block& block, const Words& words) {
    std::string text;
    for (const auto& [name, word] : words) text += field(name, block.*word);
    return text;
}

std::string group(const std::string& name, const std::string& fields) {
    return fields.empty() ? "" : name + ":" + fields;
}

std::string describeBlock(const std::string& name, const CounterBlock& block) {
    return group(name, fields(block, kWords) + field("open", block.openConnections));
}

void copyText(char* to, std::size_t size, std::string_view text) {
    std::memset(to, 0, size);
    std::memcpy(to, text.data(), std::min(size, text.size()));
}

template <class Items>
std::int32_t count(const Items& items) {
    return static_cast<std::int32_t>(items.size());
}

}  // namespace

UrlSection pattern(std::string_view text) {
    UrlSection section = {};
    section.leadingWildcard = text.starts_with('*');
    section.trailingWildcard = text.ends_with('*');
    std::istringstream pieces{std::string(text)};
    for (std::string piece; std::getline(pieces, piece, '*');) {
        if (piece.empty()) continue;
        copyText(section.piece[section.numPieces], kPieceSize, piece);
        section.pieceLength[section.numPieces++] = count(piece);
    }
    return section;
}

void configure(ConfigInfo& config, const std::vector<Site>& sites) {
    config.numSites = count(sites);
    for (std::size_t s = 0; s < sites.size(); ++s) {
        const auto& [name, categories, hosts] = sites[s];
        copyText(config.siteName[s], kNameSize, name);
        config.numHosts[s] = count(hosts);
        for (std::size_t h = 0; h < hosts.size(); ++h) {
            copyText(config.hostName[s][h], kNameSize, hosts[h]);
        }
        config.numCategories[s] = count(categories);
        for (std::size_t c = 0; c < categories.size(); ++c) {
            config.categories[s][c].numSections = 1;
            config.categories[s][c].sections[0] = pattern(categories[c]);
        }
    }
}

std::string describe(const ResultStruct& record) {
    std::string text = describeBlock("total", record.total);
    for (int s = 0; s < kMaxSites; ++s) {
        const std::string name = " | " + std::to_string(s);
        text += describeBlock(name, record.site[s]);
        for (int c = 0; c < kMaxCategories; ++c) {
            const CategoryCounters& category = record.category[s][c];
            text += group(name + "." + std::to_string(c),
                          fields(category, kCategoryWords) + field("busy", category.inProgress) +
                              field("time", category.responseTimeSum));
        }
    }
    return text;
}

Counts& Counts::operator+=(const ResultStruct& other) {
    add(total, other.total, kWords);
    for (int s = 0; s < kMaxSites; ++s) {
        add(site[s], other.site[s], kWords);
        for (int c = 0; c < kMaxCategories; ++c) {
            add(category[s][c], other.category[s][c], kCategoryWords);
            category[s][c].responseTimeSum += other.category[s][c].responseTimeSum;
        }
    }
    return *this;
}

void Counts::addRequest(int s, int c, std::size_t received, std::size_t sent, int status) {
    const int statusClass = status / 100;
    const bool failed = statusClass == 4 || statusClass == 5;
    const auto bytesSent = static_cast<std::uint32_t>(sent);
    const auto addTo = [&](CounterBlock& block) {
        ++block.requests;
        block.bytesReceived += static_cast<std::uint32_t>(received);
        block.bytesSent += bytesSent;
        block.droppedRequests += status == 0;
        block.redirects += statusClass == 3;
        block.clientErrors += statusClass == 4;
        block.serverErrors += statusClass == 5;
        block.errors += failed;
    };
    addTo(total);
    if (s >= 0) addTo(site[s]);
    if (c < 0) return;
    ++category[s][c].requests;
    category[s][c].bytesSent += bytesSent;
    category[s][c].droppedRequests += status == 0;
    category[s][c].errors += failed;
}

std::string Counts::text() const {
    Counts counted = *this;
    for (auto& ofSite : counted.category) {
        for (CategoryCounters& one : ofSite) one.responseTimeSum = 0;
    }
    return describe(counted);
}

}  // namespace tolvane::test
