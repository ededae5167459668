// Allocation and release of connection slots.
#pragma once

#include "tolvane/internal/shim_tables.h"
#include "tolvane/internal/slot_tables.h"

namespace tolvane {

// Creates the first slots: one for a type 0 server, 75 for a threaded server.
// False if there is not enough memory.
bool createSlots(int serverType);

// Allocates the lowest free slot to `fd` and grows the table if necessary. Logs
// an error and returns -1 if no slot is left.
int allocateSlot(int fd, DescriptorState& descriptor);

// The slot of `fd`, allocated if it has none; -1 if no slot is left.
inline int slotOf(int serverType, int fd, DescriptorState& descriptor) {
    if (serverType == kApacheProcesses) return 0;
    int slot = heldSlot(descriptor);
    return slot >= 0 ? slot : allocateSlot(fd, descriptor);
}

// Releases the slot of `fd`, if it has one. Returns 0.
int RELEASEINDEX(int fd);

// For a forked child: initialises the lock again, which another thread may have
// held at the fork, and resets the parent's counts.
void freeSlotLockAfterFork();
void clearSlotsAfterFork();

// Waits until every slot with a SlotWork in progress has finished it. Afterwards
// no thread reads a configuration that was replaced before the call. Returns
// false after about a second.
bool waitForSlotsAtWork();

// A section that the publisher must not observe half done: the slot's sequence is
// odd during it. The sums are stored with release and loaded with acquire, so a
// reader of a new word of a sum also reads the odd sequence.
class SlotWork {
  public:
    explicit SlotWork(SlotState& state) : sequence_(state.sequence) {
        sequence_.store((sequence_.load(std::memory_order_relaxed) + 1) | 1,
                        std::memory_order_release);
    }
    ~SlotWork() {
        // Reads the sequence again, because a signal handler may have advanced it.
        sequence_.store((sequence_.load(std::memory_order_relaxed) | 1) + 1,
                        std::memory_order_release);
    }
    SlotWork(const SlotWork&) = delete;
    SlotWork& operator=(const SlotWork&) = delete;

  private:
    std::atomic<std::uint32_t>& sequence_;
};

}  // namespace tolvane
