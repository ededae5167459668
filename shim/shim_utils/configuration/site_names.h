// A hash table of the configured host names, built when a configuration is copied.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tolvane/segment_format.h"

namespace tolvane {

struct SiteNames {
    static constexpr int kNamesPerSite = 1 + kMaxExtraHosts;
    static constexpr int kBuckets = 128;

    struct Name {
        std::uint32_t hash;   // nameHash of the part before its first colon
        std::uint8_t length;  // 1 to 127
        std::uint8_t colon;   // position of its first colon, `length` if it has none
        std::uint8_t next;    // index of the next name in its bucket + 1; 0: none
    };
    // By site, with the site's own name first. A host matches the first name in this
    // order, so each bucket has the same order.
    Name names[kMaxSites * kNamesPerSite];
    std::uint8_t first[kBuckets];  // index of each bucket's first name + 1; 0: none

    static std::uint32_t bucket(std::uint32_t hash) { return hash % kBuckets; }
};

// A hash of a name without its port. Names that differ in case only have the same
// hash, so two names with different hashes never match.
std::uint32_t nameHash(const char* name, std::size_t length);

// The text of name `n` of SiteNames.
const char* nameText(const ConfigInfo& config, int n);

// Prepares the names of `config`, which is bounded.
void prepareNames(SiteNames& names, const ConfigInfo& config);

}  // namespace tolvane
