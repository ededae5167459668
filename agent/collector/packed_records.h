// Records in the form in which they are saved: most words of a record are 0, and
// only the others are saved, each with its index.
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

// `records` of them; words beyond the last one are ignored.
std::vector<ResultStruct> unpackRecords(const PackedWord* packed, std::size_t count,
                                        std::size_t records);

}  // namespace tolvane::agent
