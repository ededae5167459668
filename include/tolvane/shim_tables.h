// The shim's own process-global tables: where the server listens, what is
// known of each descriptor, and the state of the measurement in this process.
// The connection slots have a header of their own (connection_slots.h).
//
// A child created by fork inherits all of it.
#pragma once

#include <atomic>
#include <climits>
#include <cstdint>

#include "tolvane/limits.h"
#include "tolvane/segment_format.h"

// The library reaches tables of its own without a detour.
#pragma GCC visibility push(hidden)

namespace tolvane {

// ---------------------------------------------------------------- the server

enum ServerType : int {
    kApacheProcesses = 0,  // one connection per process
    kNetscape = 1,         // threads, one process
    kApacheThreads = 3,    // threads in several worker processes
};

// Written by server discovery in the process's first listen, then only read.
extern int webServerType;
extern int numSemaphores;    // NUM_SEMAPHORES; -1: not set
extern int requestInterval;  // measured send calls between two publications, type 0
extern int maxNumProcess;    // the server's process limit, 1 when it names none

inline constexpr int kRootSize = PATH_MAX;
inline constexpr int kPathSize = kRootSize + 32;  // root and the name of a file under it
extern char rootDir[kRootSize];                   // server root, always ending in "/"
extern char pidFile[kPathSize];                   // the server's own pid file

inline constexpr int kAddressNameSize = 50;
inline constexpr std::uint32_t kAnyAddress = 0xFFFFFFFF;
inline constexpr int kAnyPort = -1;

// Addresses on which the server's configuration makes it listen. Written by
// discovery, read by listen and by the handoff file.
struct PortTable {
    int numHttpPort;
    int httpPort[kMaxAddresses];             // host byte order; kAnyPort in the SSL table
    std::uint32_t ipAddress[kMaxAddresses];  // network byte order, kAnyAddress: wildcard
    char ipAddressName[kMaxAddresses][kAddressNameSize];  // the text in the configuration
};
extern PortTable plainPorts;
extern PortTable sslPorts;

// The server's own listening sockets, as listen recognised them. Entries are
// appended and never removed.
struct ListenTable {
    int count;
    int descriptor[kMaxAddresses];

    bool contains(int fd) const {
        for (int i = 0; i < count; ++i) {
            if (descriptor[i] == fd) return true;
        }
        return false;
    }
};
extern ListenTable httpListenSocket;
extern ListenTable sslHttpListenSocket;

// ------------------------------------------------------------- descriptors

// Kinds of connection. Untracked is 0 so that an untouched page of the table
// below is a valid stretch of it: a huge descriptor limit costs no memory.
enum SocketKind : std::uint8_t {
    kUntracked = 0,  // never accepted while measuring, on another socket, or closed
    kSsl = 1,
    kPlain = 2,
};

// What is known of one descriptor. Written only by the thread that serves the
// connection, between its accept and its close; atomic (and always relaxed)
// because a server may close a descriptor that another thread looks up.
struct DescriptorState {
    std::atomic<std::uint8_t> typeOfSocket;         // SocketKind; also says whether it is open
    std::atomic<std::uint8_t> seenHttpRequestHdr;   // 1: further reads belong to this request
    std::atomic<std::uint8_t> seenHttpResponseHdr;  // 1: the response has been started
    std::atomic<std::uint8_t> seenHttpConnection;   // 1: not yet counted for a site
    std::atomic<std::uint8_t> seenWriteOnce;        // 1: answered since data was last read
    std::atomic<std::uint8_t> owner;                // processGeneration of who last served it
    std::atomic<std::int32_t> slotPlusOne;          // slot it holds + 1; 0: none (threaded servers)
};
static_assert(sizeof(DescriptorState) == 12);

// No process opens more than this, and a table of this many entries fits a
// 32-bit address space without crowding it.
inline constexpr int kLargestTable = 1 << 22;

extern int maxSockets;                // the hard limit of descriptors; most slots there can be
extern int tableSize;                 // entries of `descriptors`
extern DescriptorState* descriptors;  // indexed by descriptor
// One above the highest descriptor that ever got a slot: bounds a range close.
extern std::atomic<int> trackedLimit;

// The state of `fd`, or null when it is outside the table.
inline DescriptorState* descriptorState(int fd) {
    return static_cast<unsigned>(fd) < static_cast<unsigned>(tableSize) ? descriptors + fd
                                                                        : nullptr;
}

// ------------------------------------------------- measurement in this process

extern std::atomic<int> tolvaneShimEnabled;  // 1: measure; 0: every call goes straight through
extern int numStructures;                    // shared records
extern int bucketNumber;                     // the shared record that this process adds into
extern int shmid;
extern ConfigInfo* shmConfig;  // the attached segment
extern ResultStruct* shmPtr;   // its record 0

extern int listenPid;               // process that ran the start-up
extern std::atomic<int> parentPid;  // the server's parent, kUnknownPid until learned

// Raised in every forked child: tells inherited connections from own ones.
extern std::uint8_t processGeneration;

}  // namespace tolvane

#pragma GCC visibility pop
