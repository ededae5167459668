#include "shim_utils/lifecycle/start_up.h"

#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "shim_monitor.h"
#include "shim_utils/accounting/counting.h"
#include "shim_utils/discovery/server_path.h"
#include "shim_utils/lifecycle/process_identity.h"
#include "shim_utils/lifecycle/run_files.h"
#include "shim_utils/platform/log.h"
#include "shim_utils/platform/process_memory.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/publication/semaphores.h"
#include "tolvane/entry_points.h"
#include "tolvane/internal/shim_tables.h"
#include "tolvane/paths.h"

namespace tolvane {

namespace {

int initialisations = 0;

// The limit may be much greater than the number of descriptors ever opened. It
// limits the slots. The table is limited to a size that fits a 32-bit address space.
bool readDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        printErrorMsg("Error in getrlimit() function\n");
        return false;
    }
    bool fits = limit.rlim_max <= static_cast<rlim_t>(INT_MAX);
    maxSockets = fits ? static_cast<int>(limit.rlim_max) : kLargestTable;
    tableSize = maxSockets < kLargestTable ? maxSockets : kLargestTable;
    if (!fits) {
        Text<160> message;
        message.add("The descriptor limit is no usable number and taken as ").add(kLargestTable);
        printErrorMsg(message.text());
    }
    return true;
}

bool createDescriptorTable() {
    auto entries = static_cast<std::size_t>(tableSize);
    descriptors = static_cast<DescriptorState*>(allocateZeroed(entries * sizeof(DescriptorState)));
    if (descriptors != nullptr) return true;
    printErrorMsg("No memory for the descriptor table: nothing is measured");
    return false;
}

// Maximum number of shared records, and thus of semaphores, per server. No server
// has more processes that publish at the same time, and all programs share the
// system's limit of semaphores, 32,000 at present.
constexpr int kMaxStructures = 1024;

// The number of shared records of an Apache server.
int recordsWanted() {
    if (maxNumProcess <= 10) return 1;
    int wanted = numSemaphores == -1 ? 3 : numSemaphores;
    if (wanted > kMaxStructures) {
        Text<128> message;
        message.add("NUM_SEMAPHORES ").add(wanted).add(" is too many: the server has ");
        message.add(kMaxStructures).add(" shared records");
        printErrorMsg(message.text());
        return kMaxStructures;
    }
    return wanted > 0 ? wanted : 1;
}

bool createRecords() {
    numStructures = 1;
    switch (webServerType) {
        case kApacheProcesses:
        case kApacheThreads:
            numStructures = recordsWanted();
            if (createResultStruct(webServerType) == 1) return true;
            printErrorMsg("No memory for the connection slots: nothing is measured");
            return false;
        case kNetscape:
            if (createResultStruct(kNetscape) == 1) return true;
            printErrorMsg("Cannot createResultStruct fails ..oops !");
            return false;
        default:
            printErrorMsg("Unknown server type --- ooops!");
            std::exit(0);
    }
}

bool createSegment() {
    auto records = static_cast<std::size_t>(numStructures);
    shmid = shmget(IPC_PRIVATE, segmentSize(records), IPC_CREAT | 0777);
    if (shmid < 0) {
        printErrorMsg("shared memory cannot be created");
        return false;
    }
    printErrorMsg(" shared memory successfully created");
    void* address = shmat(shmid, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        printErrorMsg("Shared memory pointer is NULL in monitor thread!");
        shmctl(shmid, IPC_RMID, nullptr);
        return false;
    }
    shmConfig = static_cast<ConfigInfo*>(address);
    shmPtr = reinterpret_cast<ResultStruct*>(static_cast<char*>(address) + kConfigSize);
    shmConfig->parentPid = kUnknownPid;
    return true;
}

void discardSegment() {
    shmctl(shmid, IPC_RMID, nullptr);
    shmdt(shmConfig);  // the segment exists until the last process detaches it
    shmConfig = nullptr;
    shmPtr = nullptr;
}

// The single record of a Netscape server has no semaphore.
bool guardRecords() {
    if (webServerType != kNetscape && !createSemaphores(numStructures)) {
        discardSegment();
        return false;
    }
    for (int i = 0; i < numStructures; ++i) shmPtr[i].semaphoreId = semaphoreOf(i);
    return true;
}

}  // namespace

void initializeTolvaneShim() {
    tolvaneShimEnabled.store(0, std::memory_order_relaxed);
    if (++initialisations > 1) {
        printErrorMsg("Http socket already assigned!\n");
        std::exit(0);
    }
    if (plainPorts.numHttpPort <= 0 && sslPorts.numHttpPort <= 0) {
        printErrorMsg(" No port found for the webadapter ..!");
        return;
    }
    chooseCounting();
    if (!readDescriptorLimit() || !createDescriptorTable() || !createRecords()) return;
    if (!watchForks()) {
        printErrorMsg("No memory to watch for forked children: nothing is measured");
        return;
    }
    // Before the allocation, because the earlier run may hold the last free objects.
    RecordLock lock;
    removeEarlierRun();
    if (!createSegment() || !guardRecords()) return;
    shmConfig->version = kVersionCreated;
    shmConfig->interval = kDefaultInterval;

    if (webServerType == kNetscape) startMonitor();
    tolvaneShimEnabled.store(1, std::memory_order_release);

    ServerPath path = serverPath(kApachePidFile);
    std::memcpy(pidFile, path.text(), path.length() + 1);
    if (webServerType != kNetscape) writeSemaphoreList();
    writePreviousRunRecord();
    writeHandoffFile();
}

}  // namespace tolvane
