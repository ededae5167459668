#include "segment/segment.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "os/error.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

template <typename Word>
Word loadWord(const Word& word, std::memory_order order = std::memory_order_relaxed) {
    // Loads do not write, so a read-only mapping is fine.
    return std::atomic_ref<Word>(const_cast<Word&>(word)).load(order);
}

// Servers write during the copy. A copy by words contains no torn word.
void copyWords(void* to, const void* from, std::size_t bytes) {
    auto* target = static_cast<std::uint32_t*>(to);
    const auto* source = static_cast<const std::uint32_t*>(from);
    for (std::size_t i = 0; i < bytes / sizeof(std::uint32_t); ++i) target[i] = loadWord(source[i]);
}

// Whether a publication into the record is in progress. The semaphore is read and
// never locked, because a stopped reader would delay the server.
bool publicationInProgress(std::int32_t semaphoreId) {
    return semaphoreId >= 0 && ::semctl(semaphoreId, 0, GETVAL) == 0;
}

}  // namespace

SegmentStatus segmentStatus(std::int32_t shmid) {
    SegmentStatus status;
    shmid_ds raw{};
    if (::shmctl(shmid, IPC_STAT, &raw) != 0) {
        status.error = errno;
        // It exists, but this process has no read permission.
        status.exists = errno == EACCES;
        return status;
    }
    status.exists = true;
    status.size = raw.shm_segsz;
    status.attached = raw.shm_nattch;
    status.creator = raw.shm_cpid;
    status.created = raw.shm_ctime;
    status.owner = raw.shm_perm.cuid;
    status.openToAll = (raw.shm_perm.mode & 0777) == 0777;
    status.removalPending = (raw.shm_perm.mode & SHM_DEST) != 0;
    return status;
}

Segment::Segment(std::int32_t shmid, std::int32_t structures, Access access)
    : structures_(structures), address_(nullptr) {
    std::size_t wanted = segmentSize(static_cast<std::size_t>(structures));
    SegmentStatus before = segmentStatus(shmid);
    if (!before.exists) fail(ErrorKind::kFailed, "segment {} no longer exists", shmid);
    if (before.error != 0)
        fail(ErrorKind::kFailed, "segment {}: {}", shmid, std::strerror(before.error));
    if (before.size != wanted) {
        fail(ErrorKind::kFailed, "segment {} has {} bytes where {} records need {}", shmid,
             before.size, structures, wanted);
    }
    void* address = ::shmat(shmid, nullptr, access == Access::kRead ? SHM_RDONLY : 0);
    if (address == reinterpret_cast<void*>(-1)) {
        fail(ErrorKind::kFailed, "segment {} cannot be attached: {}", shmid, std::strerror(errno));
    }
    // The identifier may have been reused in between.
    SegmentStatus after = segmentStatus(shmid);
    if (after.size != wanted || after.creator != before.creator ||
        after.created != before.created) {
        ::shmdt(address);
        fail(ErrorKind::kFailed, "segment {} no longer exists", shmid);
    }
    address_ = address;
}

Segment::~Segment() {
    ::shmdt(address_);
}

const ResultStruct* Segment::recordAt(std::int32_t record) const {
    const auto* bytes = static_cast<const char*>(address_) + kConfigSize;
    return reinterpret_cast<const ResultStruct*>(bytes) + record;
}

std::int32_t Segment::version() const {
    return loadWord(config()->version, std::memory_order_acquire);
}

std::int32_t Segment::parentPid() const {
    return loadWord(config()->parentPid);
}

std::int32_t Segment::semaphoreOf(std::int32_t record) const {
    return loadWord(recordAt(record)->semaphoreId);
}

// A group's dirty flag is 0 again after another agent has collected it; its counters
// keep their values.
bool Segment::published() const {
    for (std::int32_t i = 0; i < structures_; ++i) {
        const ResultStruct* record = recordAt(i);
        if (loadWord(record->totalDirty) != 0 || loadWord(record->total.connections) != 0 ||
            loadWord(record->total.requests) != 0 || loadWord(record->total.bytesReceived) != 0) {
            return true;
        }
    }
    return false;
}

void Segment::copyConfig(ConfigInfo& copy) const {
    copyWords(&copy, config(), sizeof copy);
}

bool Segment::copyStable(std::int32_t record, std::int32_t semaphoreId, ResultStruct& copy) const {
    constexpr int kTries = 50;
    const ResultStruct* source = recordAt(record);
    ResultStruct again;
    copyWords(&again, source, sizeof again);
    for (int i = 0; i < kTries; ++i) {
        if (i > 0) std::this_thread::sleep_for(1ms);
        bool unlocked = !publicationInProgress(semaphoreId);
        std::atomic_thread_fence(std::memory_order_acquire);
        copyWords(&copy, source, sizeof copy);
        std::atomic_thread_fence(std::memory_order_acquire);
        unlocked = unlocked && !publicationInProgress(semaphoreId);
        copyWords(&again, source, sizeof again);
        if (unlocked && std::memcmp(&copy, &again, sizeof copy) == 0) return true;
    }
    return false;
}

bool Segment::copyRecord(std::int32_t record, ResultStruct& copy) const {
    return copyStable(record, semaphoreOf(record), copy);
}

bool Segment::copyRecordWithoutLock(std::int32_t record, ResultStruct& copy) const {
    return copyStable(record, -1, copy);
}

void Segment::copyRecordNow(std::int32_t record, ResultStruct& copy) const {
    copyWords(&copy, recordAt(record), sizeof copy);
}

void Segment::markSitesCollected(std::int32_t record) {
    auto* target = const_cast<ResultStruct*>(recordAt(record));
    std::atomic_ref(target->categoriesDirty).store(0);
    std::atomic_ref(target->sitesDirty).store(0);
}

}  // namespace tolvane::agent
