// Connection slots: the request in progress of a connection and its counts. Slot
// i is requestInfo[i] and results[i]. A type 0 process has one slot, a threaded
// server one slot per open connection.
//
// Slots are allocated in blocks of 75 that never move, so the address of a slot is
// valid for the life of the process. Only the thread that serves the connection
// writes the slot's SlotState and record. The publisher reads them and keeps a
// copy of the counts that it has published. The serving thread's counts are never
// reset, so neither thread waits and no count is lost.
#pragma once

#ifndef TOLVANE_INTERNAL
#error "this header belongs to the shim; link tolvane_internal"
#endif

#include <atomic>
#include <cstdint>

#include "tolvane/internal/shim_tables.h"
#include "tolvane/segment_format.h"

// Hidden, so that the library accesses its tables directly.
#pragma GCC visibility push(hidden)

namespace tolvane {

// The request in progress on one connection.
struct RequestInfo {
    std::int32_t siteIndex;      // matched site, -1: no site; 0 after a reset
    std::int32_t startSec;       // time of day at which the request began; written only
    std::int32_t startUsec;      // when it matched a category
    std::int32_t numMatched;     // 0 to 15
    std::int32_t matched[15];    // matched categories, ascending
    std::uint32_t pendingBytes;  // read on an SSL connection, not yet credited to a site
};
static_assert(sizeof(RequestInfo) == 80);

struct ConnectionMessages;

// The part of a slot that only the serving thread writes, on separate cache lines.
struct alignas(64) SlotState {
    RequestInfo requestInfo;
    // Odd while the serving thread reads the configuration or changes a
    // response time sum; see SlotWork.
    std::atomic<std::uint32_t> sequence;
    // Incremented at the end of every step that marks the record dirty (all three
    // groups at once). A slot is clean if its value equals seenMarks.
    std::atomic<std::uint32_t> dirtyMarks;
    // Bit s: a count of site s may be other than 0. Never cleared.
    std::atomic<std::uint32_t> touchedSites;
    // Written once, when the slot is made. Null when socket calls are counted.
    ConnectionMessages* messages;
};
static_assert(sizeof(SlotState) == 128);

inline constexpr int kSlotStep = 75;

struct SlotBlock {
    // Written by the serving threads.
    SlotState states[kSlotStep];
    ResultStruct results[kSlotStep];  // counts only grow; dirty flags and semaphore unused

    // Written by the publisher alone: the part of `results` that the shared record
    // already contains, and the dirtyMarks at that time.
    ResultStruct published[kSlotStep];
    std::uint32_t seenMarks[kSlotStep];

    // Written under `mt`.
    std::uint8_t fdAlloc[kSlotStep];  // 1: in use
    int used;
};

// Number of slots of this process. It never decreases.
extern std::atomic<int> currMaxSockets;
extern std::atomic<SlotBlock*> slotBlocks[kLargestTable / kSlotStep + 1];

inline SlotBlock& blockOf(int slot) {
    return *slotBlocks[slot / kSlotStep].load(std::memory_order_acquire);
}

// Both halves of a slot.
struct Slot {
    SlotState& state;
    ResultStruct& result;
};

inline Slot slotAt(int slot) {
    SlotBlock& block = blockOf(slot);
    return {block.states[slot % kSlotStep], block.results[slot % kSlotStep]};
}

// The slot of `descriptor`; -1 if it has none. Allocates no slot.
inline int heldSlot(const DescriptorState& descriptor) {
    return descriptor.slotPlusOne.load(std::memory_order_relaxed) - 1;
}

}  // namespace tolvane

#pragma GCC visibility pop
