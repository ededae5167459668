// Access to a shared segment. Its content is not trusted: its size is checked before
// it is attached, and copies are bounded before use.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct SegmentStatus {
    bool exists = false;
    int error = 0;  // errno if it does not
    std::size_t size = 0;
    std::size_t attached = 0;
    pid_t creator = 0;
    std::time_t created = 0;
    uid_t owner = 0;
    bool openToAll = false;       // its mode is that of a measured server
    bool removalPending = false;  // removed, and still attached somewhere
};

SegmentStatus segmentStatus(std::int32_t shmid);

// `version` while a block is being rewritten. It contains the highest version that
// was ever valid, so that the next writer can continue after a killed writer.
inline constexpr std::int32_t kRewritingBase = -1000;
inline constexpr std::int32_t kMaxVersion = 2147482000;
constexpr std::int32_t rewritingVersion(std::int32_t highest) {
    return kRewritingBase - highest;
}
constexpr bool isRewriting(std::int32_t version) {
    return version <= kRewritingBase;
}
// Whether the block is marked as invalid, by this program or by another agent.
constexpr bool isBeingWritten(std::int32_t version) {
    return version <= 0 && version != kVersionCreated && version != kVersionRemoved;
}
// The highest valid version so far; 0 without any.
constexpr std::int32_t highestVersion(std::int32_t version) {
    if (isRewriting(version))
        return static_cast<std::int32_t>(kRewritingBase - std::int64_t{version});
    return version > 0 ? version : 0;
}

class Segment {
  public:
    enum class Access { kRead, kWrite };
    // Throws Error if the segment does not exist, does not have the size for this
    // number of records, or cannot be attached.
    Segment(std::int32_t shmid, std::int32_t structures, Access access);
    ~Segment();
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    std::int32_t structures() const { return structures_; }
    std::int32_t version() const;
    std::int32_t parentPid() const;
    std::int32_t semaphoreOf(std::int32_t record) const;
    // Whether any process has published counts into any record.
    bool published() const;
    const ConfigInfo* config() const { return static_cast<const ConfigInfo*>(address_); }
    ConfigInfo* config() { return static_cast<ConfigInfo*>(address_); }  // needs write access

    // Copies the configuration block word by word.
    void copyConfig(ConfigInfo& copy) const;

    // Copies a record between two publications. False if every attempt failed; the
    // copy is then that of the last attempt.
    bool copyRecord(std::int32_t record, ResultStruct& copy) const;
    // The same for a record without a semaphore: two equal copies are sufficient.
    bool copyRecordWithoutLock(std::int32_t record, ResultStruct& copy) const;
    // Copies the record without checks, for a caller that holds its semaphore.
    void copyRecordNow(std::int32_t record, ResultStruct& copy) const;

    // Sets the dirty flags of sites and categories to 0, so the next publication
    // resets them. Needs write access.
    void markSitesCollected(std::int32_t record);

  private:
    const ResultStruct* recordAt(std::int32_t record) const;
    bool copyStable(std::int32_t record, std::int32_t semaphoreId, ResultStruct& copy) const;

    std::int32_t structures_;
    void* address_;
};

}  // namespace tolvane::agent
