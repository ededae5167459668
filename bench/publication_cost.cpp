// What handing on counts costs: a type 0 process's publication, and a cycle of a
// threaded server's monitor. These run on their own, not within a server's call,
// so the shim's inner parts are linked in and called directly.
#include <cstdlib>
#include <string>
#include <vector>

#include "fullest_configuration.h"
#include "measured_rows.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/process_memory.h"
#include "shim_utils/publication/publication.h"
#include "shim_utils/publication/semaphores.h"
#include "shim_utils/slots/records.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"

using namespace tolvane;
using namespace tolvane::bench;

namespace {

std::vector<char> segment(segmentSize(1));

void startMeasurement(ServerType type, int slots) {
    webServerType = type;
    numStructures = 1;
    shmConfig = reinterpret_cast<ConfigInfo*>(segment.data());
    shmPtr = reinterpret_cast<ResultStruct*>(segment.data() + kConfigSize);
    fullestConfiguration(*shmConfig);
    shmConfig->version = 1;
    copyConfiguration();
    maxSockets = tableSize = slots;
    const auto bytes = static_cast<std::size_t>(slots) * sizeof(DescriptorState);
    descriptors = static_cast<DescriptorState*>(allocateZeroed(bytes));
    if (descriptors == nullptr || createResultStruct(type) != 1) fail("no memory");
    for (int fd = 0; fd < slots; ++fd) {
        if (GETINDEX(type, fd) < 0) fail("no slot");
    }
}

void countIn(CounterBlock& block) {
    addTo(block.requests, 1U);
    addTo(block.bytesSent, 1000U);
    addTo(block.bytesReceived, 700U);
}

// The counts of a request in that many categories of that many sites.
void countRequest(int slot, int sites, int categories) {
    auto [state, result] = slotAt(slot);
    countIn(result.total);
    for (int s = 0; s < sites; ++s) {
        countIn(result.site[s]);
        for (int c = 0; c < categories; ++c) {
            CategoryCounters& counters = result.category[s][c];
            addTo(counters.requests, 1U);
            addTo(counters.bytesSent, 1000U);
            addSeconds(counters, 0.001);
        }
    }
    state.touchedSites.store((1U << sites) - 1U);
    state.dirtyMarks.fetch_add(1);
}

void nothing() {}

template <int sites, int categories>
void count() {
    countRequest(0, sites, categories);
}
template <int sites, int categories>
void countAndPublish() {
    countRequest(0, sites, categories);
    writeResult();
}
template <int sites, int categories>
void addPublication(const std::string& name) {
    addCost({"publication, " + name, nothing, countAndPublish<sites, categories>,
             count<sites, categories>});
}

// The semaphore lives in the kernel: gone whichever way the program ends.
void removeOwnSemaphore() {
    removeSemaphore(semaphoreOf(0));
}

int slots;

template <int percent>
void countInSome() {
    for (int i = 0; i < slots * percent / 100; ++i) {
        countRequest(static_cast<int>(i * 7919L % slots), 1, 1);
    }
}
template <int percent>
void countAndCycle() {
    countInSome<percent>();
    publishSlots();
}

template <int percent>
void addCycle(const std::string& what) {
    addCost({"monitor cycle, " + std::to_string(slots) + " slots, " + what + ", per slot",
             countAndCycle<100>, countAndCycle<percent>, countInSome<percent>,
             static_cast<double>(slots)});
}

}  // namespace

// publication_cost type0|SLOTS [--instructions]
int main(int argc, char** argv) {
    if (argc < 2) fail("usage: publication_cost type0|SLOTS [--instructions]");
    if (std::string(argv[1]) == "type0") {
        startMeasurement(kApacheProcesses, 1);
        if (!createSemaphores(1)) fail("no semaphore");
        std::atexit(removeOwnSemaphore);
        addCost({"publication, nothing to publish", nothing, writeResult, nothing});
        addPublication<0, 0>("totals only");
        addPublication<1, 1>("totals, one site, one category");
        addPublication<kMaxSites, kMaxCategories>("all totals, sites and categories");
    } else {
        slots = std::atoi(argv[1]);
        if (slots < 1) fail("no number of slots");
        startMeasurement(kNetscape, slots);
        addCycle<0>("all clean");
        addCycle<10>("10 % changed");
        addCycle<100>("all changed");
    }
    return runRows(sizeof(void*) == 8 ? "Publication, 64-bit" : "Publication, 32-bit", argc - 1,
                   argv + 1);
}
