#include "shim_utils/slots/connection_slots.h"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <ctime>

#include "shim_utils/platform/errno_guard.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/process_memory.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/slots/exchanges.h"
#include "tolvane/entry_points.h"

namespace tolvane {

namespace {

// Protects fdAlloc and `used` of every block, lowestFree, trackedLimit and
// growth. Only server threads lock it, never the publisher.
pthread_mutex_t mt = PTHREAD_MUTEX_INITIALIZER;
int lowestFree = 0;  // no block below it has a free slot

int slotsInBlock(int block) {
    return std::min(kSlotStep, currMaxSockets.load(std::memory_order_relaxed) - block * kSlotStep);
}

int blockCount() {
    return (currMaxSockets.load(std::memory_order_relaxed) + kSlotStep - 1) / kSlotStep;
}

// Marks the lowest free slot as in use; -1 if no slot is free. `mt` is held.
int allocateFreeSlot() {
    for (; lowestFree < blockCount(); ++lowestFree) {
        SlotBlock& block = blockOf(lowestFree * kSlotStep);
        int size = slotsInBlock(lowestFree);
        if (block.used == size) continue;
        auto* end = block.fdAlloc + size;
        auto* free = std::find(block.fdAlloc, end, 0);
        if (free == end) continue;
        *free = 1;
        ++block.used;
        return lowestFree * kSlotStep + static_cast<int>(free - block.fdAlloc);
    }
    return -1;
}

bool addMessages(SlotBlock& block, int slots) {
    const auto size = static_cast<std::size_t>(slots) * sizeof(ConnectionMessages);
    auto* messages = static_cast<ConnectionMessages*>(allocateZeroed(size));
    if (messages == nullptr) return false;
    for (int i = 0; i < slots; ++i) block.states[i].messages = messages + i;
    return true;
}

// Appends a block. New memory is all zero, which is the initial state of a slot's
// record and request.
bool addBlock(int slots) {
    int total = currMaxSockets.load(std::memory_order_relaxed);
    auto* block = static_cast<SlotBlock*>(allocateZeroed(sizeof(SlotBlock)));
    if (block == nullptr) return false;
    if (countsMessages && !addMessages(*block, slots)) {
        munmap(block, sizeof(SlotBlock));
        return false;
    }
    slotBlocks[total / kSlotStep].store(block, std::memory_order_release);
    currMaxSockets.store(total + slots, std::memory_order_release);
    return true;
}

// Grows the table by up to 75 slots. `mt` is held.
void increaseSockets() {
    int total = currMaxSockets.load(std::memory_order_relaxed);
    if (total >= maxSockets) return;
    Text<96> message;
    message.add("INCREASING SOCKETS - currMax ").add(total).add(", max ").add(maxSockets);
    printErrorMsg(message.text());
    addBlock(std::min(kSlotStep, maxSockets - total));
}

}  // namespace

int allocateSlot(int fd, DescriptorState& descriptor) {
    ErrnoGuard guard;
    pthread_mutex_lock(&mt);
    int slot = allocateFreeSlot();
    if (slot < 0) {
        increaseSockets();
        slot = allocateFreeSlot();
    }
    if (fd >= trackedLimit.load(std::memory_order_relaxed)) {
        trackedLimit.store(fd + 1, std::memory_order_relaxed);
    }
    pthread_mutex_unlock(&mt);

    descriptor.slotPlusOne.store(slot + 1, std::memory_order_relaxed);
    if (slot < 0) printErrorMsg("OOOOPS ERROR!");
    return slot;
}

bool createSlots(int serverType) {
    if (currMaxSockets.load(std::memory_order_relaxed) > 0) return true;
    return addBlock(serverType == kApacheProcesses ? 1 : kSlotStep);
}

int RELEASEINDEX(int fd) {
    ErrnoGuard guard;
    pthread_mutex_lock(&mt);
    // Two threads that close the same descriptor both call this.
    int slot = heldSlot(descriptors[fd]);
    if (slot >= 0) {
        descriptors[fd].slotPlusOne.store(0, std::memory_order_relaxed);
        SlotBlock& block = blockOf(slot);
        block.fdAlloc[slot % kSlotStep] = 0;
        --block.used;
        lowestFree = std::min(lowestFree, slot / kSlotStep);
    }
    pthread_mutex_unlock(&mt);
    return 0;
}

void freeSlotLockAfterFork() {
    mt = PTHREAD_MUTEX_INITIALIZER;
}

void clearSlotsAfterFork() {
    int slots = currMaxSockets.load(std::memory_order_relaxed);
    for (int i = 0; i < slots; ++i) {
        // An unused slot is not written to, so its pages stay shared.
        Slot slot = slotAt(i);
        std::uint32_t marks = slot.state.dirtyMarks.load(std::memory_order_relaxed);
        if (marks == 0) continue;
        SlotBlock& block = blockOf(i);
        slot.result = ResultStruct{};
        slot.state.requestInfo.pendingBytes = 0;
        block.published[i % kSlotStep] = ResultStruct{};
        block.seenMarks[i % kSlotStep] = marks;
    }
}

bool waitForSlotsAtWork() {
    constexpr int kTries = 1000;
    constexpr timespec kPause = {0, 1'000'000};
    int tries = 0;
    int slots = currMaxSockets.load(std::memory_order_acquire);
    for (int i = 0; i < slots; ++i) {
        const auto& sequence = slotAt(i).state.sequence;
        std::uint32_t atWork = sequence.load(std::memory_order_acquire);
        if (atWork % 2 == 0) continue;
        while (sequence.load(std::memory_order_acquire) == atWork) {
            if (++tries > kTries) return false;
            nanosleep(&kPause, nullptr);
        }
    }
    return true;
}

}  // namespace tolvane

int GETINDEX(int serverType, int fd) {
    using namespace tolvane;
    // A slot index of another server type is not valid in this process.
    if (serverType != webServerType || currMaxSockets.load(std::memory_order_acquire) == 0) {
        return -1;
    }
    if (serverType == kApacheProcesses) return 0;
    DescriptorState* descriptor = descriptorState(fd);
    if (descriptor == nullptr) return -1;
    return slotOf(serverType, fd, *descriptor);
}
