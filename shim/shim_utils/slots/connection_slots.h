// Taking and releasing connection slots, and access to them.
#pragma once

#include "tolvane/internal/shim_tables.h"
#include "tolvane/internal/slot_tables.h"

namespace tolvane {

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
