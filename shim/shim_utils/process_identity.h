// Which process this is: the server's parent, a worker, or a child that a
// worker has forked.
#pragma once

namespace tolvane {

// In an Apache server: learns the parent's process id, from the segment or
// from the server's pid file, until it is known. Exactly one process fills the
// segment's field; if it is a worker it then checks the semaphores.
void discoverParent();

// The process id in the server's pid file; -1 when there is none to be read.
int getParentPid();

// Makes sure that every record's semaphore still exists. At the first one that
// does not: logs it, marks the segment for removal and cleans up.
void unlockSemaphores();

// Whether this process is the server's parent and some process has learned so.
// What it found out itself counts; the segment, where anybody can write, decides
// only in a process that never had the occasion.
bool isServersParent();

// Whether this process, or some other according to the segment, knows the parent.
bool parentIsKnown();

// Makes forked children start with empty counters, and the server's parent
// recognise itself when it forks. False when memory is short.
bool watchForks();

// Whether this memory is the calling process's own, and not that of a parent
// that waits for its vforked child. A system call; true before start-up.
bool ownsMemory();

}  // namespace tolvane
