#include "collector/packed_records.h"

#include <cstring>

namespace tolvane::agent {

namespace {

constexpr std::size_t kRecordWords = sizeof(ResultStruct) / sizeof(std::uint32_t);

}  // namespace

std::vector<PackedWord> packRecords(const std::vector<ResultStruct>& records) {
    std::vector<PackedWord> packed;
    packed.reserve(records.size() * kRecordWords);
    std::uint32_t words[kRecordWords];
    std::uint32_t index = 0;
    for (const ResultStruct& record : records) {
        std::memcpy(words, &record, sizeof record);
        for (std::uint32_t word : words) {
            if (word != 0) packed.push_back({index, word});
            ++index;
        }
    }
    return packed;
}

std::vector<ResultStruct> unpackRecords(const PackedWord* packed, std::size_t count,
                                        std::size_t records) {
    std::vector<std::uint32_t> words(records * kRecordWords);
    for (std::size_t i = 0; i < count; ++i) {
        if (packed[i].index < words.size()) words[packed[i].index] = packed[i].value;
    }
    std::vector<ResultStruct> unpacked(records);
    std::memcpy(unpacked.data(), words.data(), words.size() * sizeof(std::uint32_t));
    return unpacked;
}

}  // namespace tolvane::agent
