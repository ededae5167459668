// The files that describe a run: the handoff file for the agent, and the
// previous-run record and the list of semaphores for the server's next start.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "shim_utils/discovery/server_path.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

// Small, because the handoff file can be deleted inside an accept.
using HandoffPath = Text<64>;

// The path of the handoff file that process `pid` writes.
HandoffPath handoffPath(int pid);

ServerPath recordPath();

// Locks out other servers with the same root from the removal of an earlier run
// until this run's record is written. If two servers start at the same time, the
// second finds the record of the first. Waits five seconds at most, then logs a
// line, and the start continues without the lock.
class RecordLock {
  public:
    RecordLock();
    ~RecordLock();
    RecordLock(const RecordLock&) = delete;
    RecordLock& operator=(const RecordLock&) = delete;

  private:
    int fd_;  // -1: not locked
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Removes the segment, semaphores and handoff file that the previous-run record
// names, if that run created them. Logs those that it did not create.
void removeEarlierRun();

// Maximum size of the list of a run's semaphores, terminating NUL included.
inline constexpr std::size_t kSemaphoreListSize = 16384;

// The list of this run's semaphores for the server's next start. Only the server's
// user can read or write it. The segment names the semaphores too, but every user
// can write to it.
ServerPath semaphoreListPath();
void writeSemaphoreList();

// Write this run's files and log failures. They replace only a regular file and
// never write through a link.
void writePreviousRunRecord();
void writeHandoffFile();

// Deletes the handoff file with this process's id in its name.
void deleteHandoffFile();

}  // namespace tolvane
