// Writing a configuration into a segment that processes copy at any moment.
//
// A process reads `version`, copies the block, and reads `version` again; it
// keeps the copy when both were the same and above its own. So the writer
//   1. sets `version` to a value below 0, so that no process copies the block;
//   2. writes the block;
//   3. raises `version` to one above every earlier valid one.
// The value of step 1 contains the highest valid version: after a writer was
// killed between 1 and 3, the next one still continues above it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "os/wait_notice.h"
#include "segment/segment.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

// Excludes other writers for the same server. A lock on the handoff file itself,
// which the system releases however its holder ends.
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
    std::int32_t version = 0;  // under which the block is now valid
    // The mark of another agent that began a configuration and did not finish
    // it within the patience; 0 when there was none.
    std::int32_t replacedMark = 0;
};

// Throws Error when the server stops meanwhile, or another program writes
// without the lock.
WrittenConfiguration writeConfiguration(Segment& segment, const ConfigInfo& block,
                                        std::chrono::seconds patience = std::chrono::seconds(5),
                                        const WaitNotice& notice = {});

}  // namespace tolvane::agent
