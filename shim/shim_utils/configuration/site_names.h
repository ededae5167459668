// The configured host names as the matching of a Host value wants them: found
// by a hash, worked out once when a configuration is taken.
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
        std::uint8_t colon;   // position of its first colon, `length` when it has none
        std::uint8_t next;    // next name in its bucket + 1; 0: none
    };
    // By site, the site's own name first: the order in which a host takes the
    // first name that matches, and so the order within a bucket.
    Name names[kMaxSites * kNamesPerSite];
    std::uint8_t first[kBuckets];  // first name of each bucket + 1; 0: none

    static std::uint32_t bucket(std::uint32_t hash) { return hash % kBuckets; }
};

// A hash that is the same for names that differ in case only. Whatever the
// ports, two names can only mean the same host when their hashes are equal.
std::uint32_t nameHash(const char* name, std::size_t length);

// The text of name `n` of SiteNames.
const char* nameText(const ConfigInfo& config, int n);

// Prepares the names of `config`, which is bounded.
void prepareNames(SiteNames& names, const ConfigInfo& config);

}  // namespace tolvane
