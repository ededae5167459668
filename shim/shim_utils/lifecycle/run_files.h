// The two files that lead to a run's segment: the handoff file for the agent,
// and the previous-run record for the server's next start.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "shim_utils/discovery/server_path.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

// Small: the handoff file may have to be deleted inside an accept.
using HandoffPath = Text<64>;

// The path of the handoff file that process `pid` writes.
HandoffPath handoffPath(int pid);

ServerPath recordPath();

// Keeps other servers on the same root away, from the removal of an earlier
// run until this run's record is written: of two that start at once, the second
// finds the first's record. Waits five seconds at most and then goes without,
// with a line in the log.
class RecordLock {
  public:
    RecordLock();
    ~RecordLock();
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;

  private:
    int fd_;  // -1: goes without
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Removes the segment, semaphores and handoff file that the previous-run
// record names, as far as they are still that run's. What is not is logged.
void removeEarlierRun();

// Bytes of the file that lists a run's semaphores, its terminating NUL included.
inline constexpr std::size_t kSemaphoreListSize = 16384;

// The list of this run's semaphores for the server's next start, which only the
// server's user can read or write. The segment names them too, but every user can
// write there.
ServerPath semaphoreListPath();
void writeSemaphoreList();

// Write this run's files; failures are logged. Only a regular file is ever
// replaced, and never written through a link.
void writePreviousRunRecord();
void writeHandoffFile();

// Deletes the handoff file named with this process's id.
void deleteHandoffFile();

}  // namespace tolvane
