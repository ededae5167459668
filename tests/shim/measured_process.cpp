#include "measured_process.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "shim_utils/accounting/counting.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/process_memory.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/publication/semaphores.h"
#include "support/sandbox.h"
#include "tolvane/entry_points.h"

namespace tolvane::test {
namespace {

std::size_t tableBytes() {
    return static_cast<std::size_t>(maxSockets) * sizeof(DescriptorState);
}

// Lets the next process find its lowest slot free; nothing else remembers it.
void freeLowestSlot() {
    SlotBlock& block = blockOf(0);
    if (webServerType == kApacheProcesses || block.used == 0) return;
    descriptors[0].slotPlusOne.store(1);
    RELEASEINDEX(0);
}

}  // namespace

MeasuredProcess::MeasuredProcess(ServerType type, int descriptorLimit, int records)
    : segment_(segmentSize(static_cast<std::size_t>(records)) / 4), records_(records) {
    webServerType = type;
    maxSockets = tableSize = descriptorLimit;
    descriptors = static_cast<DescriptorState*>(allocateZeroed(tableBytes()));
    chooseCounting();
    EXPECT_EQ(createResultStruct(type), 1);
    shmConfig = reinterpret_cast<ConfigInfo*>(segment_.data());
    shmPtr = reinterpret_cast<ResultStruct*>(shmConfig + 1);
    if (type != kNetscape) {
        EXPECT_TRUE(createSemaphores(records));
    }
    numStructures = records;
    bucketNumber = 0;
    requestInterval = 5;
    resetIntervalAfterFork();
    putIntoForce({});
    tolvaneShimEnabled.store(1);
}

MeasuredProcess::~MeasuredProcess() {
    tolvaneShimEnabled.store(0);
    for (int i = 0; i < records_; ++i) removeSemaphore(semaphoreOf(i));
    freeLowestSlot();
    for (int first = 0; first < currMaxSockets.load(); first += kSlotStep) {
        munmap(slotBlocks[first / kSlotStep].exchange(nullptr), sizeof(SlotBlock));
    }
    currMaxSockets.store(0);
    munmap(descriptors, tableBytes());
    maxSockets = tableSize = 0;
}

void putIntoForce(const std::vector<Site>& sites) {
    ConfigInfo& config = editConfiguration();
    std::memset(&config, 0, sizeof config);
    configure(config, sites);
    useEditedConfiguration();
}

LogTail::LogTail() : seen_(logMessages().size()) {}

std::vector<std::string> LogTail::next() {
    std::vector<std::string> all = logMessages();
    std::vector<std::string> added(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return added;
}

void inChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "see the child's messages above";
}

}  // namespace tolvane::test
