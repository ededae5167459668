// Finds the segment of each measured server, also if its handoff file is damaged or
// missing: any local user can write into the file, and a disk may be full.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "segment/segment.h"
#include "servers/handoff.h"

namespace tolvane::agent {

struct FoundRun {
    Handoff handoff;       // with the segment that was found, and its records
    std::string damage;    // why the file does not identify the segment; empty if it does
    bool found = true;     // the segment
    bool running = false;  // not found, but processes of the server may run
    std::string reason;    // why it was not found
};

// The handoff files first, ordered by process id, then the segments that server
// processes use without a handoff file. Throws Error if the directory cannot be read.
std::vector<FoundRun> findRuns();

// Why the segment with the identifier in the handoff file does not belong to the
// server; empty if it does.
std::string foreignSegment(const Handoff& handoff, const SegmentStatus& status);

}  // namespace tolvane::agent
