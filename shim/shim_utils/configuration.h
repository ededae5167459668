// The process's own copy of the agent's configuration: how it is taken from
// the segment, bounded, and prepared for matching.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "text.h"
#include "tolvane/segment_format.h"

namespace tolvane {

// One host name as matching wants it.
struct PreparedName {
    std::uint32_t hash;   // nameHash of the part before its first colon
    std::uint8_t length;  // 0 to 127
    std::uint8_t colon;   // position of its first colon, `length` when it has none
};

// A hash that is the same for names that differ in case only. Whatever the
// ports, two names can only mean the same host when their hashes are equal.
inline std::uint32_t nameHash(const char* name, std::size_t length) {
    std::uint32_t hash = 2166136261U;
    for (std::size_t i = 0; i < length; ++i) {
        hash = (hash ^ static_cast<unsigned char>(lowerCase(name[i]))) * 16777619U;
    }
    return hash;
}

// Which pairs of neighbouring bytes a text holds, folded into 256 bits. A
// pattern can only occur in a URL that holds all of the pattern's pairs.
struct PairSet {
    std::array<std::uint64_t, 4> bits;

    void add(const char* text, std::size_t length) {
        for (std::size_t i = 1; i < length; ++i) {
            auto first = static_cast<unsigned char>(text[i - 1]);
            auto second = static_cast<unsigned char>(text[i]);
            unsigned pair = (first * 31U + second) & 255U;
            bits[pair / 64] |= std::uint64_t{1} << (pair % 64);
        }
    }
    bool holds(const PairSet& other) const {
        std::uint64_t missing = 0;
        for (std::size_t i = 0; i < bits.size(); ++i) missing |= other.bits[i] & ~bits[i];
        return missing == 0;
    }
};

// A configuration and what was worked out from it when it was taken, so that
// the server's calls do not have to.
struct Configuration {
    ConfigInfo info;  // bounded: no count or length exceeds its capacity, every text ends
    PreparedName siteNames[kMaxSites];
    PreparedName hostNames[kMaxSites][kMaxExtraHosts];
    PairSet sectionPairs[kMaxSites][kMaxCategories][kMaxSections];
    std::uint8_t pieceTextLength[kMaxSites][kMaxCategories][kMaxSections][kMaxPieces];
};

// The configuration in force; all zero until one has been taken. It stays
// unchanged until the configuration after the next one is taken: a server
// thread uses it within a SlotWork, and whoever takes a new one first calls
// waitForSlotsAtWork.
const Configuration& configInfo();

// Copies the segment's block when its version is greater than ours. Returns
// whether it did.
bool checkLatestConfigInfo();

// Whether checkLatestConfigInfo would find a newer version.
bool newerConfigurationThere();

// Copies the segment's block whatever its version.
void takeConfiguration();

// Bounds `config` to the capacities of the format. Adds to `report` what was
// out of range, value and limits; it stays empty when nothing was.
void boundConfiguration(ConfigInfo& config, Text<512>& report);

// Works out everything in `config` beside `info`, which is bounded.
void prepareConfiguration(Configuration& config);

// A copy of the configuration in force, to be changed and then put into force.
ConfigInfo& editConfiguration();
void useEditedConfiguration();

}  // namespace tolvane
