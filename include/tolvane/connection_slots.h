// Connection slots: where a connection's request in progress and its counts
// live. Slot i is requestInfo[i] together with results[i]; a type 0 process
// has one slot, a threaded server one per open connection.
//
// Slots come in blocks of 75 that never move, so a slot's address is good for
// the life of the process. Only the thread that serves the connection writes a
// slot's SlotState and record; the publisher reads them and keeps in a memory
// of its own what it has already handed on. Nothing is ever reset under the
// serving thread's hands, so neither side waits and no count can be lost.
#pragma once

#include <atomic>
#include <cstdint>

#include "tolvane/segment_format.h"
#include "tolvane/shim_tables.h"

// The library reaches tables of its own without a detour.
#pragma GCC visibility push(hidden)

namespace tolvane {

// The request in progress on one connection.
struct RequestInfo {
    std::int32_t siteIndex;      // matched site, -1: none; 0 after a reset
    std::int32_t startSec;       // time of day at which the request began; written only
    std::int32_t startUsec;      // when it matched a category
    std::int32_t numMatched;     // 0 to 15
    std::int32_t matched[15];    // matched categories, ascending
    std::uint32_t pendingBytes;  // read on an SSL connection, not yet credited to a site
};
static_assert(sizeof(RequestInfo) == 80);

// The serving thread's side of a slot, on cache lines of its own.
struct alignas(64) SlotState {
    RequestInfo requestInfo;
    // Odd while the serving thread reads the configuration or changes a
    // response time sum; see SlotWork.
    std::atomic<std::uint32_t> sequence;
    // Raised at the end of every step that marks the record dirty (all three
    // groups at once). A slot whose value the publisher has seen is clean.
    std::atomic<std::uint32_t> dirtyMarks;
    // Bit s: some count of site s may be other than 0. Never cleared.
    std::atomic<std::uint32_t> touchedSites;
};
static_assert(sizeof(SlotState) == 128);

inline constexpr int kSlotStep = 75;

struct SlotBlock {
    // Written by the serving threads.
    SlotState states[kSlotStep];
    ResultStruct results[kSlotStep];  // counts only grow; dirty flags and semaphore unused

    // Written by the publisher alone: the part of `results` that is in the
    // shared record already, and the dirtyMarks at the time.
    ResultStruct handedOn[kSlotStep];
    std::uint32_t seenMarks[kSlotStep];

    // Written under `mt`.
    std::uint8_t fdAlloc[kSlotStep];  // 1: in use
    int used;
};

// Slots of this process; a slot below it exists for good.
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

// The slot that `descriptor` holds, without taking one; -1: none.
inline int heldSlot(const DescriptorState& descriptor) {
    return descriptor.slotPlusOne.load(std::memory_order_relaxed) - 1;
}

// Makes the first slots: one for a type 0 server, 75 for a threaded one.
// False when memory is short.
bool createSlots(int serverType);

// Binds the lowest free slot to `fd`, growing the table if need be; -1, after
// logging it, when there is none to be had.
int takeSlot(int fd, DescriptorState& descriptor);

// The slot of `fd`, taking one if it has none; -1 when there is none.
inline int slotOf(int serverType, int fd, DescriptorState& descriptor) {
    if (serverType == kApacheProcesses) return 0;
    int slot = heldSlot(descriptor);
    return slot >= 0 ? slot : takeSlot(fd, descriptor);
}

// Gives the slot of `fd` back, if it holds one. Returns 0.
int RELEASEINDEX(int fd);

// In a forked child: frees the lock that another thread may have held at the
// fork; clears what the parent counted.
void freeSlotLockAfterFork();
void clearSlotsAfterFork();

// Waits until every slot that is at work now has left that work once, so that
// nobody can still be reading a configuration retired before the call. Gives
// up, and returns false, after about a second.
bool waitForSlotsAtWork();

// Brackets what must not be seen half done by the publisher: the sequence is
// odd meanwhile. The sums inside are stored with release and loaded with
// acquire, so a reader that sees one of them new also sees the odd sequence.
class SlotWork {
  public:
    explicit SlotWork(SlotState& state) : sequence_(state.sequence) {
        sequence_.store((sequence_.load(std::memory_order_relaxed) + 1) | 1,
                        std::memory_order_release);
    }
    ~SlotWork() {
        // Not odd_ + 1: work that interrupted this one has gone past that.
        sequence_.store((sequence_.load(std::memory_order_relaxed) | 1) + 1,
                        std::memory_order_release);
    }
    SlotWork(const SlotWork&) = delete;
    SlotWork& operator=(const SlotWork&) = delete;

  private:
    std::atomic<std::uint32_t>& sequence_;
};

}  // namespace tolvane

#pragma GCC visibility pop
