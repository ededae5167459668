// Every process-global table of the shim, with its value at load.
#include "tolvane/internal/shim_tables.h"
#include "tolvane/internal/slot_tables.h"

namespace tolvane {
namespace {

alignas(16) thread_local constinit char memoryOfSearch[kSearchSize]
    __attribute__((tls_model("initial-exec"))) = {};

}  // namespace

void* searchMemory() {
    return memoryOfSearch;
}

int webServerType = kApacheProcesses;
int numSemaphores = 0;
int requestInterval = 5;
int maxNumProcess = 1;
bool countsMessages = false;
const Counting* counting = nullptr;
char rootDir[kRootSize];
char pidFile[kPathSize];

PortTable plainPorts;
PortTable sslPorts;
AddressList plainAddresses;
AddressList sslAddresses;
ListenTable httpListenSocket;
ListenTable sslHttpListenSocket;
ListenTable localListenSocket;

int maxSockets = 0;
int tableSize = 0;
DescriptorState* descriptors = nullptr;
std::atomic<int> trackedLimit{0};
thread_local constinit int lastSslDescriptor = -1;
thread_local constinit bool searching = false;
thread_local constinit const void* lastSslFunction = nullptr;
thread_local constinit const void* lastSslObject = nullptr;

std::atomic<int> tolvaneShimEnabled{0};
int numStructures = 1;
int bucketNumber = 0;
int shmid = -1;
ConfigInfo* shmConfig = nullptr;
ResultStruct* shmPtr = nullptr;

int listenPid = kUnknownPid;
std::atomic<int> memoryPid{0};
std::atomic<int> parentPid{kUnknownPid};
std::atomic<void*> servingThread{nullptr};
std::atomic<bool> servesConnections{false};
std::atomic<bool> readyForConnections{false};
sembuf psembuf = {0, -1, SEM_UNDO};
sembuf vsembuf = {0, +1, SEM_UNDO};
std::uint8_t processGeneration = 0;

std::atomic<int> currMaxSockets{0};
std::atomic<SlotBlock*> slotBlocks[kLargestTable / kSlotStep + 1];

}  // namespace tolvane
