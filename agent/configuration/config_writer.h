// Writes a configuration into a segment that processes can copy at any time.
//
// A process reads `version`, copies the block, and reads `version` again; it
// keeps the copy if both values are equal and above its own version. The writer
//   1. sets `version` to a value below 0, so that no process copies the block;
//   2. writes the block;
//   3. raises `version` above every earlier valid version.
// The value of step 1 contains the highest valid version: if a writer was
// killed between 1 and 3, the next writer continues above it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "os/wait_notice.h"
#include "segment/segment.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

// Excludes other writers for the same server: a lock on the handoff file, which the
// system releases when its holder ends for any reason.
class ConfigLock {
  public:
    explicit ConfigLock(const std::string& handoffPath,
                        std::chrono::seconds patience = std::chrono::seconds(10),
                        const WaitNotice& notice = {});
    ~ConfigLock();
    ConfigLock(const ConfigLock&) = delete;
    ConfigLock& operator=(const ConfigLock&) = delete;

  private:
    int fd_;
};

struct WrittenConfiguration {
    std::int32_t version = 0;  // of the valid block
    // The mark of another agent that did not finish its configuration within the
    // patience; 0 without such a mark.
    std::int32_t replacedMark = 0;
};

// Throws Error if the server stops meanwhile, or if another program writes
// without the lock.
WrittenConfiguration writeConfiguration(Segment& segment, const ConfigInfo& block,
                                        std::chrono::seconds patience = std::chrono::seconds(5),
                                        const WaitNotice& notice = {});

}  // namespace tolvane::agent
