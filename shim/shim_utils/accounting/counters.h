// Steps that both ways of counting share, on the counters of a slot's record.
#pragma once

#include <atomic>
#include <bit>
#include <cstdint>

#include "shim_utils/slots/connection_slots.h"
#include "shim_utils/slots/records.h"
#include "tolvane/internal/slot_tables.h"

namespace tolvane {

inline constexpr auto kRelaxed = std::memory_order_relaxed;

// Marks the record dirty. This is the last store of a step, so a publisher that
// reads the mark also reads the step's counts.
inline void markDirty(SlotState& state) {
    state.dirtyMarks.store(state.dirtyMarks.load(kRelaxed) + 1, std::memory_order_release);
}

// The counters of site `s`, marked as touched for the publisher.
inline CounterBlock& siteCounters(Slot slot, int s) {
    std::uint32_t touched = slot.state.touchedSites.load(kRelaxed);
    std::uint32_t bit = 1U << s;
    if ((touched & bit) == 0) slot.state.touchedSites.store(touched | bit, kRelaxed);
    return slot.result.site[s];
}

inline void lowerInProgress(CategoryCounters& category) {
    if (valueOf(category.inProgress) > 0) addTo(category.inProgress, -1);
}

inline void countStatus(CounterBlock& block, int statusClass) {
    if (statusClass == 3) addTo(block.redirects, 1U);
    if (statusClass == 4) addTo(block.clientErrors, 1U);
    if (statusClass == 5) addTo(block.serverErrors, 1U);
    if (statusClass == 4 || statusClass == 5) addTo(block.errors, 1U);
}

// Calls `visit` with the counters of each category of site `s` whose bit is set.
template <typename Visit>
void forEachCategory(Slot slot, int s, std::uint32_t categories, Visit visit) {
    for (; categories != 0; categories &= categories - 1) {
        visit(slot.result.category[s][std::countr_zero(categories)]);
    }
}

}  // namespace tolvane
