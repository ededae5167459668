// The shim's process-global tables: listening addresses, descriptor states, and the
// state of the measurement in this process. The connection slots are in
// slot_tables.h. All tables are defined in shim_utils/state/.
//
// A child created by fork inherits all tables.
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

// Hidden, so that the library accesses its tables directly.
#pragma GCC visibility push(hidden)

namespace tolvane {

// ---------------------------------------------------------------- the server

enum ServerType : int {
    kApacheProcesses = 0,  // one connection per process
    kNetscape = 1,         // threads, one process
    kApacheThreads = 3,    // threads in several worker processes
};

// Written by server discovery in the process's first listen call, then only read.
extern int webServerType;
extern int numSemaphores;    // NUM_SEMAPHORES; -1: not set
extern int requestInterval;  // measured send calls between two publications, type 0
// Whether HTTP messages are counted, else socket calls.
extern bool countsMessages;
struct Counting;
extern const Counting* counting;  // the table of that way; null before start-up
extern int maxNumProcess;         // the server's process limit, 1 if it configures none

inline constexpr int kRootSize = PATH_MAX;
inline constexpr int kPathSize = kRootSize + 32;  // root and the name of a file under it
extern char rootDir[kRootSize];                   // server root, always ending in "/"
extern char pidFile[kPathSize];                   // the server's own pid file

inline constexpr int kAddressNameSize = 50;
inline constexpr std::uint32_t kAnyAddress = 0xFFFFFFFF;
inline constexpr int kAnyPort = -1;

// The listening addresses of the server's configuration. Written by discovery, read
// by listen and for the handoff file.
struct PortTable {
    int numHttpPort;
    int httpPort[kMaxAddresses];             // host byte order; kAnyPort in the SSL table
    std::uint32_t ipAddress[kMaxAddresses];  // network byte order, kAnyAddress: wildcard
    char ipAddressName[kMaxAddresses][kAddressNameSize];  // the text in the configuration
};
extern PortTable plainPorts;
extern PortTable sslPorts;

// The distinct addresses of one kind, in the order of the configuration. The first
// ten fill a PortTable. Written by discovery, read by listen.
struct AddressList {
    static constexpr int kCapacity = 1024;

    int count;
    int port[kCapacity];
    std::uint32_t address[kCapacity];
    char name[kCapacity][kAddressNameSize];
};
extern AddressList plainAddresses;
extern AddressList sslAddresses;

// Greater than the number of descriptors that a process opens. A table of this many
// entries leaves enough of a 32-bit address space.
inline constexpr int kLargestTable = 1 << 22;

// A set of listening sockets, by descriptor. listen adds and removes sockets, the
// close calls remove them, and accept looks them up, possibly in several threads.
// Pages without descriptors cost no memory.
class ListenTable {
  public:
    static bool fits(int fd) {
        return static_cast<unsigned>(fd) < static_cast<unsigned>(kLargestTable);
    }
    bool contains(int fd) const {
        return fits(fd) && (word(fd).load(std::memory_order_relaxed) & bit(fd)) != 0;
    }
    // Adds or removes `fd`.
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
extern ListenTable localListenSocket;    // neither IPv4 nor IPv6: no clients

// ------------------------------------------------------------- descriptors

// Kinds of connection. Untracked is 0, so that zeroed pages of the table below are
// valid, and a large descriptor limit costs no memory.
enum SocketKind : std::uint8_t {
    kUntracked = 0,  // never accepted while measuring, on another socket, or closed
    kSsl = 1,
    kPlain = 2,
};

// The state of a descriptor. Written only by the thread that serves the connection,
// between its accept and its close. Atomic (and always relaxed), because a server
// may close a descriptor that another thread looks up.
struct DescriptorState {
    std::atomic<std::uint8_t> typeOfSocket;         // SocketKind; kUntracked when not open
    std::atomic<std::uint8_t> seenHttpRequestHdr;   // 1: further reads belong to this request
    std::atomic<std::uint8_t> seenHttpResponseHdr;  // 1: the response has started
    std::atomic<std::uint8_t> seenHttpConnection;   // 1: not yet counted for a site
    std::atomic<std::uint8_t> seenWriteOnce;        // 1: written to since the last read
    std::atomic<std::uint8_t> owner;        // processGeneration of the process that last served it
    std::atomic<std::int32_t> slotPlusOne;  // its slot + 1; 0: no slot (threaded servers)
};
static_assert(sizeof(DescriptorState) == 12);

extern int maxSockets;                // the hard limit of descriptors; maximum number of slots
extern int tableSize;                 // entries of `descriptors`
extern DescriptorState* descriptors;  // indexed by descriptor
// One above the highest descriptor ever recorded; limits a range close.
extern std::atomic<int> trackedLimit;

// The state of `fd`, or null if it is outside the table.
inline DescriptorState* descriptorState(int fd) {
    return static_cast<unsigned>(fd) < static_cast<unsigned>(tableSize) ? descriptors + fd
                                                                        : nullptr;
}

// The SSL connection from which this thread read last, -1 before the first. It tells the
// TLS calls which connection they decrypt. In the static block of the thread's memory,
// since the dynamic block is allocated on first use.
extern thread_local constinit int lastSslDescriptor __attribute__((tls_model("initial-exec")));
// The real TLS function that this thread called last. A library that calls another
// interposed function as its last step seems to be called from the shim itself.
extern thread_local constinit const void* lastSslFunction
    __attribute__((tls_model("initial-exec")));
// The TLS object whose plaintext this thread counted last.
extern thread_local constinit const void* lastSslObject __attribute__((tls_model("initial-exec")));

// The thread's memory for the search of URL patterns, which is too large for the stack of a
// call. Aligned to 16. In use while `searching`: a signal handler that interrupts a search
// finds no pattern. A function, since g++ 12 checks the address of a thread's variable wrongly
// under -fsanitize=null.
inline constexpr int kSearchSize = 1408;
void* searchMemory();
extern thread_local constinit bool searching __attribute__((tls_model("initial-exec")));

// ------------------------------------------------- measurement in this process

extern std::atomic<int> tolvaneShimEnabled;  // 1: measure; 0: do nothing but the real calls
extern int numStructures;                    // shared records
extern int bucketNumber;                     // the shared record that this process adds to
extern int shmid;
extern ConfigInfo* shmConfig;  // the attached segment
extern ResultStruct* shmPtr;   // its record 0

extern int listenPid;  // process that ran the start-up

// The process that owns this memory, 0 before start-up. Written at start-up and in
// every forked child. A vforked child has another id, because it runs in its parent's
// memory. Its calls must not change that memory.
extern std::atomic<int> memoryPid;
extern std::atomic<int> parentPid;  // the server's parent, kUnknownPid until discovered

// Thread pointer of the serving thread of a type 0 process; null before its first
// connection.
extern std::atomic<void*> servingThread;

// Whether this process has begun to serve HTTP connections, and whether it is ready
// for them: its shared record is chosen and, in a threaded server, its configuration
// copied and its monitor started.
extern std::atomic<bool> servesConnections;
extern std::atomic<bool> readyForConnections;

// The operations that lock and unlock a record's semaphore.
extern sembuf psembuf;
extern sembuf vsembuf;

// Incremented in every forked child, to distinguish inherited connections.
extern std::uint8_t processGeneration;

}  // namespace tolvane

#pragma GCC visibility pop
