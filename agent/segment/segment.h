// Access to a shared segment. Nothing in it is trusted: its size is settled
// before it is attached, and whatever is copied out is bounded before use.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct SegmentStatus {
    bool exists = false;
    int error = 0;  // errno when it does not
    std::size_t size = 0;
    std::size_t attached = 0;
    pid_t creator = 0;
    std::time_t created = 0;
    uid_t owner = 0;
    bool removalPending = false;  // removed, and still attached somewhere
};

SegmentStatus segmentStatus(std::int32_t shmid);

// What `version` says while a block is being rewritten: the highest version
// that was ever valid is kept in it, so that a writer killed half way leaves
// nothing behind that the next one needs.
inline constexpr std::int32_t kRewritingBase = -1000;
inline constexpr std::int32_t kMaxVersion = 2147482000;
constexpr std::int32_t rewritingVersion(std::int32_t highest) {
    return kRewritingBase - highest;
}
constexpr bool isRewriting(std::int32_t version) {
    return version <= kRewritingBase;
}
// The block is not valid: by our mark, or by one that another agent set.
constexpr bool isBeingWritten(std::int32_t version) {
    return version <= 0 && version != kVersionCreated && version != kVersionRemoved;
}
// The highest version that was valid so far; 0 when none was.
constexpr std::int32_t highestVersion(std::int32_t version) {
    if (isRewriting(version))
        return static_cast<std::int32_t>(kRewritingBase - std::int64_t{version});
    return version > 0 ? version : 0;
}

class Segment {
  public:
    enum class Access { kRead, kWrite };
    // Throws Error when the segment is gone, has another size than that
    // many records need, or may not be attached.
    Segment(std::int32_t shmid, std::int32_t structures, Access access);
    ~Segment();
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    std::int32_t structures() const { return structures_; }
    std::int32_t version() const;
    std::int32_t parentPid() const;
    std::int32_t semaphoreOf(std::int32_t record) const;
    const ConfigInfo* config() const { return static_cast<const ConfigInfo*>(address_); }
    ConfigInfo* config() { return static_cast<ConfigInfo*>(address_); }  // needs write access

    // One record as it stood between two publications. False when it never
    // stood still; the copy is then the last one made.
    bool copyRecord(std::int32_t record, ResultStruct& copy) const;
    // The same of a record whose semaphore says nothing: one that stood still.
    bool copyRecordWithoutLock(std::int32_t record, ResultStruct& copy) const;
    // The record as it stands, for a caller that holds its semaphore.
    void copyRecordNow(std::int32_t record, ResultStruct& copy) const;

    // Tells the record's next publication to start sites and categories from
    // 0. Needs write access.
    void markSitesTaken(std::int32_t record);

  private:
    const ResultStruct* recordAt(std::int32_t record) const;
    bool copySteady(std::int32_t record, std::int32_t semaphoreId, ResultStruct& copy) const;

    std::int32_t structures_;
    void* address_;
};

// The configuration block, whole, and bounded.
struct ConfigCopy {
    std::unique_ptr<ConfigInfo> info;
    bool steady = false;    // it was not being rewritten
    std::string complaint;  // what was out of range; empty when nothing was
};
ConfigCopy copyConfiguration(const Segment& segment);

// Brings every count into its range and ends every text in use; says what it
// had to change.
std::string boundConfiguration(ConfigInfo& config);

}  // namespace tolvane::agent
