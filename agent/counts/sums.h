// 64-bit sums of the 32-bit counters of a record.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "tolvane/counters.h"

namespace tolvane::agent {

template <typename Block>
struct Sums {
    static constexpr std::size_t kCount = std::size(countersOf<Block>());

    std::array<std::uint64_t, kCount> values{};  // in the order of the table

    std::uint64_t& operator[](std::uint32_t Block::*counter) {
        return values[counterIndex(counter)];
    }
    std::uint64_t operator[](std::uint32_t Block::*counter) const {
        return values[counterIndex(counter)];
    }
    // The sum of the counter of that name, if the block has one.
    std::optional<std::uint64_t> named(std::string_view name) const {
        for (std::size_t i = 0; i < kCount; ++i) {
            if (countersOf<Block>()[i].name == name) return values[i];
        }
        return std::nullopt;
    }
    void setNamed(std::string_view name, std::uint64_t value) {
        for (std::size_t i = 0; i < kCount; ++i) {
            if (countersOf<Block>()[i].name == name) values[i] = value;
        }
    }
    void add(const Sums& other) {
        for (std::size_t i = 0; i < kCount; ++i) values[i] += other.values[i];
    }
    // Adds the increase of a block since `before`, modulo 2^32.
    void addDifference(const Block& before, const Block& after) {
        for (std::size_t i = 0; i < kCount; ++i) {
            auto member = countersOf<Block>()[i].member;
            values[i] += static_cast<std::uint32_t>(after.*member - before.*member);
        }
    }
    bool empty() const {
        return std::all_of(values.begin(), values.end(), [](auto value) { return value == 0; });
    }
};

using TrafficCounts = Sums<CounterBlock>;

struct CategoryCounts : Sums<CategoryCounters> {
    double responseTimeSum = 0;  // seconds

    void add(const CategoryCounts& other) {
        Sums::add(other);
        responseTimeSum += other.responseTimeSum;
    }
    bool empty() const { return Sums::empty() && responseTimeSum == 0; }
};

// The counters that both kinds of block have; all others are 0.
TrafficCounts asTraffic(const CategoryCounts& counts);

}  // namespace tolvane::agent
