#include "configuration/config_block.h"

#include <cstring>

#include "os/error.h"

namespace tolvane::agent {

namespace {

template <std::size_t Size>
void store(char (&field)[Size], const std::string& text) {
    if (text.size() >= Size) fail(ErrorKind::kInvalidInput, "text does not fit the segment");
    std::memcpy(field, text.data(), text.size());
}

std::int32_t countWithin(std::size_t count, int limit) {
    if (count > static_cast<std::size_t>(limit)) {
        fail(ErrorKind::kInvalidInput, "more than the segment holds");
    }
    return static_cast<std::int32_t>(count);
}

void storePattern(UrlSection& section, const UrlPattern& pattern) {
    section.numPieces = countWithin(pattern.pieces.size(), kMaxPieces);
    section.leadingWildcard = pattern.leadingWildcard ? 1 : 0;
    section.trailingWildcard = pattern.trailingWildcard ? 1 : 0;
    for (std::size_t i = 0; i < pattern.pieces.size(); ++i) {
        store(section.piece[i], pattern.pieces[i]);
        section.pieceLength[i] = static_cast<std::int32_t>(pattern.pieces[i].size());
    }
}

void storeCategory(CategoryConfig& category, const CategoryModel& model) {
    store(category.label, model.label);
    category.numSections = countWithin(model.patterns.size(), kMaxSections);
    for (std::size_t i = 0; i < model.patterns.size(); ++i) {
        storePattern(category.sections[i], model.patterns[i]);
    }
}

}  // namespace

std::unique_ptr<ConfigInfo> buildConfigBlock(const ConfigModel& model) {
    auto block = std::make_unique<ConfigInfo>();
    block->interval = model.interval;
    block->numSites = countWithin(model.sites.size(), kMaxSites);
    for (std::size_t s = 0; s < model.sites.size(); ++s) {
        const SiteModel& site = model.sites[s];
        store(block->siteName[s], site.name);
        block->numHosts[s] = countWithin(site.hosts.size(), kMaxExtraHosts);
        for (std::size_t h = 0; h < site.hosts.size(); ++h) {
            store(block->hostName[s][h], site.hosts[h]);
        }
        block->numCategories[s] = countWithin(site.categories.size(), kMaxCategories);
        for (std::size_t c = 0; c < site.categories.size(); ++c) {
            storeCategory(block->categories[s][c], site.categories[c]);
        }
    }
    return block;
}

}  // namespace tolvane::agent
