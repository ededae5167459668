// The counters of a result record, one line each. All code that lists counters
// (sums, reports, JSON, metrics, the database of totals) uses these tables.
//
// Not in the tables: the gauges, because every publication adds to them, so that
// their sum is meaningless, and `responseTimeSum`, which is not an integer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "tolvane/segment_format.h"

namespace tolvane {

enum class CounterUnit { kEvents, kBytes };

template <typename Block>
struct Counter {
    const char* name;  // in JSON and in the database; with "_total" in metrics
    std::uint32_t Block::*member;
    CounterUnit unit;
    const char* help;  // beginning of a sentence
};

inline constexpr Counter<CounterBlock> kTrafficCounters[] = {
    {"connections", &CounterBlock::connections, CounterUnit::kEvents, "Connections"},
    {"requests", &CounterBlock::requests, CounterUnit::kEvents, "Requests"},
    {"sent_bytes", &CounterBlock::bytesSent, CounterUnit::kBytes, "Bytes sent to clients"},
    {"received_bytes", &CounterBlock::bytesReceived, CounterUnit::kBytes,
     "Bytes received from clients"},
    {"errors", &CounterBlock::errors, CounterUnit::kEvents,
     "Responses with a status of 400 to 599"},
    {"dropped_requests", &CounterBlock::droppedRequests, CounterUnit::kEvents,
     "Requests whose connection closed before a response"},
    {"redirects", &CounterBlock::redirects, CounterUnit::kEvents,
     "Responses with a status of 300 to 399"},
    {"client_errors", &CounterBlock::clientErrors, CounterUnit::kEvents,
     "Responses with a status of 400 to 499"},
    {"server_errors", &CounterBlock::serverErrors, CounterUnit::kEvents,
     "Responses with a status of 500 to 599"},
};

inline constexpr Counter<CategoryCounters> kCategoryCounters[] = {
    {"requests", &CategoryCounters::requests, CounterUnit::kEvents, "Requests"},
    {"sent_bytes", &CategoryCounters::bytesSent, CounterUnit::kBytes, "Bytes sent to clients"},
    {"errors", &CategoryCounters::errors, CounterUnit::kEvents,
     "Responses with a status of 400 to 599"},
    {"dropped_requests", &CategoryCounters::droppedRequests, CounterUnit::kEvents,
     "Requests whose connection closed before a response"},
};

// Each block also has one gauge, and that of a category has a double.
static_assert(sizeof(CounterBlock) == sizeof(std::uint32_t) * (std::size(kTrafficCounters) + 1),
              "a counter is missing from the table");
static_assert(sizeof(CategoryCounters) ==
                  sizeof(std::uint32_t) * (std::size(kCategoryCounters) + 1) + sizeof(double),
              "a counter is missing from the table");

template <typename Block>
constexpr const auto& countersOf() {
    if constexpr (std::is_same_v<Block, CounterBlock>) {
        return kTrafficCounters;
    } else {
        return kCategoryCounters;
    }
}

// The index of a counter in its table.
template <typename Block>
constexpr std::size_t counterIndex(std::uint32_t Block::*member) {
    std::size_t index = 0;
    while (countersOf<Block>()[index].member != member) ++index;
    return index;
}

}  // namespace tolvane
