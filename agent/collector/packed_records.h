// The persistent form of records: most words of a record are 0, so only the other
// words are stored, each with its index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct PackedWord {
    std::uint32_t index;  // over all words of all records
    std::uint32_t value;
};

std::vector<PackedWord> packRecords(const std::vector<ResultStruct>& records);

// Returns `records` records; words beyond the last record are ignored.
std::vector<ResultStruct> unpackRecords(const PackedWord* packed, std::size_t count,
                                        std::size_t records);

}  // namespace tolvane::agent
