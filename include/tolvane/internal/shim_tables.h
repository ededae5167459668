// The shim's own process-global tables: where the server listens, what is
// known of each descriptor, and the state of the measurement in this process.
// The connection slots are in slot_tables.h. All of
// it is defined in shim_utils/state/.
//
// A child created by fork inherits all of it.
#pragma once

#ifndef TOLVANE_INTERNAL
#error "this header belongs to the shim; link tolvane_internal"
#endif

#include <sys/sem.h>

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

// The distinct addresses of one kind in the order of the configuration. The first
// ten become a PortTable. Written by discovery, read by listen.
struct AddressList {
    static constexpr int kCapacity = 1024;

    int count;
    int port[kCapacity];
    std::uint32_t address[kCapacity];
    char name[kCapacity][kAddressNameSize];
};
extern AddressList plainAddresses;
extern AddressList sslAddresses;

// No process opens more descriptors than this, and a table of this many entries
// fits a 32-bit address space without crowding it.
inline constexpr int kLargestTable = 1 << 22;

// A set of listening sockets, by descriptor. listen adds and removes, and so
// does whatever closes the descriptor; accept looks up. A server may do all of
// that in several threads. Pages that no descriptor falls in cost no memory.
class ListenTable {
  public:
    static bool fits(int fd) {
        return static_cast<unsigned>(fd) < static_cast<unsigned>(kLargestTable);
    }
    bool contains(int fd) const {
        return fits(fd) && (word(fd).load(std::memory_order_relaxed) & bit(fd)) != 0;
    }
    // Makes the set contain `fd` or not.
    void set(int fd, bool contained) {
        if (contained == contains(fd) || !fits(fd)) return;
        if (contained) {
            word(fd).fetch_or(bit(fd), std::memory_order_relaxed);
        } else {
            word(fd).fetch_and(~bit(fd), std::memory_order_relaxed);
        }
    }

  private:
    using Word = std::atomic<std::uint32_t>;
    const Word& word(int fd) const { return words_[fd / 32]; }
    Word& word(int fd) { return words_[fd / 32]; }
    static std::uint32_t bit(int fd) { return std::uint32_t{1} << fd % 32; }

    Word words_[kLargestTable / 32];
};
extern ListenTable httpListenSocket;     // connections are plain
extern ListenTable sslHttpListenSocket;  // connections are SSL
extern ListenTable localListenSocket;    // of another family than the Internet's: no clients

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

extern int listenPid;  // process that ran the start-up

// The process that this memory belongs to, 0 before start-up: written there and
// in every forked child. A vforked child has another id: it runs in its parent's
// memory, where what it does with its own descriptors must leave no trace.
extern std::atomic<int> memoryPid;
extern std::atomic<int> parentPid;  // the server's parent, kUnknownPid until learned

// Thread pointer of the thread that serves a type 0 process; null until its
// first connection.
extern std::atomic<void*> servingThread;

// Whether this process has begun to serve HTTP connections, and whether it is
// ready for them: its shared record is fixed and, with threads, its
// configuration taken and its monitor started.
extern std::atomic<bool> servesConnections;
extern std::atomic<bool> readyForConnections;

// The operations that lock and unlock a record's semaphore.
extern sembuf psembuf;
extern sembuf vsembuf;

// Raised in every forked child: tells inherited connections from own ones.
extern std::uint8_t processGeneration;

}  // namespace tolvane

#pragma GCC visibility pop
