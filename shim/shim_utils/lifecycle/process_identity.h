// The role of this process: the server's parent, a worker, or a child of a worker.
#pragma once

namespace tolvane {

// In an Apache server: reads the parent's process id from the segment or from the
// server's pid file, until it is known. Exactly one process writes the segment's
// field. If that process is a worker, it then checks the semaphores.
void discoverParent();

// The process id in the server's pid file; -1 if it cannot be read.
int getParentPid();

// Checks that every record's semaphore still exists. At the first missing
// semaphore: logs it, marks the segment for removal and cleans up.
void unlockSemaphores();

// Whether this process is the server's parent and a process has discovered that.
// The process's own findings decide. The segment, which every user can write to,
// decides only if the process has found nothing itself.
bool isServersParent();

// Whether this process or, according to the segment, another process has discovered
// the parent.
bool parentIsKnown();

// Registers fork handlers: forked children start with empty counters, and a process
// checks before it forks whether it is the server's parent. False if there is not
// enough memory.
bool watchForks();

// Whether the calling process owns this memory. False in a vforked child, which
// runs in its parent's memory. Makes a system call; true before start-up.
bool ownsMemory();

}  // namespace tolvane
