// Arithmetic on the words of a result record that its serving thread and the
// publisher share, and the record operations of entry_points.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "shim_utils/slots/connection_slots.h"
#include "tolvane/segment_format.h"

namespace tolvane {

// Each word has one writer, so a load and a store suffice, without a locked
// operation. They are relaxed because dirtyMarks orders the publisher's reads.
template <typename Word>
void addTo(Word& word, Word amount) {
    std::atomic_ref<Word> shared(word);
    // Unsigned: the segment is world-writable, and a signed sum could overflow.
    std::uint32_t sum = static_cast<std::uint32_t>(shared.load(std::memory_order_relaxed)) +
                        static_cast<std::uint32_t>(amount);
    shared.store(static_cast<Word>(sum), std::memory_order_relaxed);
}

template <typename Word>
Word valueOf(const Word& word) {
    return std::atomic_ref<Word>(const_cast<Word&>(word)).load(std::memory_order_relaxed);
}

// A response time sum is aligned to 4 bytes, where an eight-byte access is not
// atomic. It is read and written as two words. The publisher checks by SlotWork's
// sequence that both belong to the same value.
struct SumWords {
    std::uint32_t word[2];
};

inline std::uint32_t* sumWords(CategoryCounters& counters) {
    return reinterpret_cast<std::uint32_t*>(reinterpret_cast<char*>(&counters) +
                                            offsetof(CategoryCounters, responseTimeSum));
}

// The sum, read by its own writer.
inline double ownSeconds(CategoryCounters& counters) {
    std::uint32_t* words = sumWords(counters);
    SumWords value = {{valueOf(words[0]), valueOf(words[1])}};
    double sum;
    std::memcpy(&sum, &value, sizeof sum);
    return sum;
}

// Adds `seconds` to the sum. Called by the serving thread within a SlotWork.
inline void addSeconds(CategoryCounters& counters, double seconds) {
    std::uint32_t* words = sumWords(counters);
    double sum = ownSeconds(counters) + seconds;
    SumWords value;
    std::memcpy(&value, &sum, sizeof sum);
    for (int i = 0; i < 2; ++i) {
        std::atomic_ref<std::uint32_t>(words[i]).store(value.word[i], std::memory_order_release);
    }
}

// Reads the sum of a slot that may be in use. False if the sum changed during
// every attempt; the caller publishes it in the next cycle.
inline bool readSeconds(const SlotState& state, CategoryCounters& counters, double& sum) {
    constexpr int kTries = 8;
    std::uint32_t* words = sumWords(counters);
    for (int i = 0; i < kTries; ++i) {
        std::uint32_t before = state.sequence.load(std::memory_order_acquire);
        SumWords value;
        for (int w = 0; w < 2; ++w) {
            value.word[w] =
                std::atomic_ref<std::uint32_t>(words[w]).load(std::memory_order_acquire);
        }
        if (before % 2 == 0 && state.sequence.load(std::memory_order_relaxed) == before) {
            std::memcpy(&sum, &value, sizeof sum);
            return true;
        }
    }
    return false;
}

// The levels of reinitializeResult.
enum ResetLevel : int { kCategories = 0, kTotals = 1, kAll = 2, kSites = 3 };

}  // namespace tolvane
