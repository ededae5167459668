#include "servers/created_segment.h"

#include <sys/shm.h>

#include "segment/segment.h"
#include "servers/server.h"

namespace tolvane::agent {

namespace {

std::int32_t recordsIn(std::size_t size) {
    return size < kConfigSize ? 0 : static_cast<std::int32_t>((size - kConfigSize) / kRecordSize);
}

}  // namespace

bool leadToCreatedSegment(Handoff& handoff) {
    shm_info info{};
    // With this command the call fills another structure than it declares.
    int last = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
    std::size_t mostAttached = 0;
    bool found = false;
    for (int i = 0; i <= last; ++i) {
        shmid_ds raw{};
        Handoff candidate = handoff;
        candidate.shmid = ::shmctl(i, SHM_STAT, &raw);
        if (candidate.shmid < 0 || raw.shm_cpid != handoff.pid) continue;
        SegmentStatus status = segmentStatus(candidate.shmid);
        candidate.structures = recordsIn(status.size);
        candidate.problem.clear();
        bool ours = candidate.structures > 0 && foreignSegment(candidate, status).empty();
        // An earlier server may have had the same process id.
        if (!ours || (found && status.attached <= mostAttached)) continue;
        found = true;
        mostAttached = status.attached;
        handoff = candidate;
    }
    return found;
}

}  // namespace tolvane::agent
