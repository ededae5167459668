#include "servers/run_search.h"

#include <fmt/format.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <set>

#include "os/listeners.h"
#include "os/process.h"
#include "os/text.h"
#include "servers/attached.h"

namespace tolvane::agent {

namespace {

// Seconds by which a handoff file may appear older than its segment, because the two
// times come from clocks of different resolution.
constexpr std::time_t kClockSlack = 2;

// Seconds for which a server that starts may have no handoff file yet.
constexpr std::time_t kStarting = 5;

struct Candidate {
    std::int32_t shmid;
    std::int32_t structures;
    SegmentStatus status;
};

std::int32_t recordsIn(std::size_t size) {
    return size < kConfigSize ? 0 : static_cast<std::int32_t>((size - kConfigSize) / kRecordSize);
}

// The segments of this namespace with the size and mode of a measured server's.
std::vector<Candidate> allCandidates() {
    std::vector<Candidate> candidates;
    shm_info info{};
    // With this command the call fills another structure than it declares.
    int last = ::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&info));
    for (int i = 0; i <= last; ++i) {
        shmid_ds raw{};
        std::int32_t shmid = ::shmctl(i, SHM_STAT, &raw);
        if (shmid < 0) continue;
        SegmentStatus status = segmentStatus(shmid);
        std::int32_t structures = recordsIn(status.size);
        if (structures > 0 && status.openToAll &&
            status.size == segmentSize(static_cast<std::size_t>(structures))) {
            candidates.push_back({shmid, structures, status});
        }
    }
    return candidates;
}

bool isNested(pid_t pid) {
    return namespaceIds(pid).size() > 1;
}

// Whether a process of an inner namespace, where it has the id `wanted`, may have
// created the segment. The creator may have ended since.
bool createdInInnerNamespace(pid_t wanted, pid_t creator, std::int32_t shmid) {
    if (isNested(creator)) return namespaceIds(creator).back() == wanted;
    if (processExists(creator)) return false;
    auto servers = attachedProcesses(shmid, -1).servers;
    return std::any_of(servers.begin(), servers.end(), isNested);
}

// Why the handoff file cannot identify the server's segment; empty if it can.
std::string damageOf(const Handoff& handoff) {
    if (!handoff.problem.empty()) return handoff.problem;
    SegmentStatus status = segmentStatus(handoff.shmid);
    if (!status.exists) return fmt::format("segment {} no longer exists", handoff.shmid);
    return status.error != 0 ? "" : foreignSegment(handoff, status);
}

bool inUse(const Candidate& candidate) {
    return candidate.status.attached > 0 && !candidate.status.removalPending;
}

// The segment that the process in the file's name created. An earlier server may have
// had the same process id, unless the process still runs with the library.
const Candidate* createdBy(const Handoff& handoff, const std::vector<Candidate>& candidates) {
    const Candidate* best = nullptr;
    const bool runs = hasShimLoaded(handoff.pid);
    for (const Candidate& candidate : candidates) {
        bool notNewer = handoff.written + kClockSlack >= candidate.status.created;
        bool created =
            candidate.status.creator == handoff.pid && (notNewer || (runs && inUse(candidate)));
        if (!created) continue;
        if (best == nullptr || candidate.status.attached > best->status.attached) {
            best = &candidate;
        }
    }
    return best;
}

// Whether a process that has the id in the file's name in another process namespace may
// have created the segment.
bool mayBelongTo(const Handoff& handoff, const Candidate& candidate) {
    pid_t creator = candidate.status.creator;
    if (!inUse(candidate) || handoff.written + kClockSlack < candidate.status.created) return false;
    return creator == 0 || (creator != handoff.pid &&
                            createdInInnerNamespace(handoff.pid, creator, candidate.shmid));
}

// The segment that the file names, or the only one in use.
const Candidate* createdElsewhere(const Handoff& handoff,
                                  const std::vector<Candidate>& candidates) {
    const Candidate* found = nullptr;
    bool several = false;
    for (const Candidate& candidate : candidates) {
        if (!mayBelongTo(handoff, candidate)) continue;
        if (candidate.shmid == handoff.shmid) return &candidate;
        several = found != nullptr;
        found = &candidate;
    }
    return several ? nullptr : found;
}

void lead(Handoff& handoff, const Candidate& candidate) {
    handoff.shmid = candidate.shmid;
    handoff.structures = candidate.structures;
    bool damaged = !handoff.problem.empty() || handoff.listen.empty();
    handoff.problem.clear();
    if (!damaged) return;
    pid_t process = oldestOf(attachedProcesses(candidate.shmid, -1).servers);
    auto listen = listenAddressesOf(process);
    if (!listen.empty()) handoff.listen = listen;
    if (!handoff.serverType.empty()) return;
    auto environment = processEnvironment(process);
    bool netscape = environment && environment->count("WEB_SERVER") != 0 &&
                    lower(environment->at("WEB_SERVER")) == "netscape";
    handoff.serverType = netscape ? "NETSCAPE" : "APACHE";
}

// Whether the process sees the same handoff directory; a container may have its own.
bool sharesDirectory(pid_t pid) {
    struct stat ours {};
    struct stat theirs {};
    std::string path = fmt::format("/proc/{}/root{}", pid, kHandoffDirectory);
    if (::stat(kHandoffDirectory, &ours) != 0 || ::stat(path.c_str(), &theirs) != 0) return true;
    return ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
}

// A process with the library that has a segment with the identifier attached, in
// another System V namespace; 0 without one.
pid_t userInOtherNamespace(std::int32_t shmid) {
    if (shmid < 0) return 0;
    for (pid_t pid : allProcesses()) {
        if (sharesIpcNamespace(pid) || !sharesDirectory(pid)) continue;
        auto mappings = processMappings(pid);
        if (mappings && mapsLibrary(*mappings) && mapsSegment(*mappings, shmid)) return pid;
    }
    return 0;
}

// Without a segment: why, and whether processes of the server may run.
void judgeLost(FoundRun& run, const std::vector<Candidate>& unclaimed) {
    const Handoff& handoff = run.handoff;
    run.found = false;
    run.reason = handoff.problem.empty() ? run.damage : "handoff file damaged: " + run.damage;
    auto free = std::find_if(unclaimed.begin(), unclaimed.end(), [&](const Candidate& candidate) {
        return mayBelongTo(handoff, candidate);
    });
    if (pid_t pid = userInOtherNamespace(handoff.shmid); pid != 0) {
        run.reason += fmt::format(
            "; process {} uses it in another System V namespace: 'nsenter -i -t {} tolvane list'",
            pid, pid);
        run.running = true;
    } else if (hasShimLoaded(handoff.pid) && sharesDirectory(handoff.pid)) {
        run.reason += fmt::format("; process {} runs with the library", handoff.pid);
        run.running = true;
    } else if (!handoff.problem.empty() && free != unclaimed.end()) {
        run.reason += fmt::format("; segment {} without a handoff file is in use", free->shmid);
        run.running = true;
    }
}

// A server whose file is missing, seen by its processes.
std::optional<FoundRun> runWithoutFile(const Candidate& candidate) {
    bool starting = std::time(nullptr) - candidate.status.created < kStarting;
    if (!inUse(candidate) || starting) return std::nullopt;
    pid_t process = oldestOf(attachedProcesses(candidate.shmid, -1).servers);
    if (process == 0 || !sharesDirectory(process)) return std::nullopt;
    FoundRun run;
    run.damage = "it is missing";
    run.handoff.pid = candidate.status.creator > 0 ? candidate.status.creator : process;
    run.handoff.path = kHandoffDirectory + (kHandoffPrefix + std::to_string(run.handoff.pid));
    run.handoff.written = candidate.status.created;
    lead(run.handoff, candidate);
    return run;
}

}  // namespace

std::string foreignSegment(const Handoff& handoff, const SegmentStatus& status) {
    std::size_t wanted = segmentSize(static_cast<std::size_t>(handoff.structures));
    if (status.size != wanted) {
        return fmt::format(
            "segment {} belongs to another program: it has {} bytes where {} need {}",
            handoff.shmid, status.size,
            plural(static_cast<std::size_t>(handoff.structures), "record"), wanted);
    }
    if (!status.openToAll) {
        return fmt::format("segment {} belongs to another program: it is not open to all users",
                           handoff.shmid);
    }
    if (handoff.written + kClockSlack < status.created) {
        return fmt::format("segment {} is newer than the handoff file", handoff.shmid);
    }
    // A creator in an outer or unrelated process namespace has the id 0.
    if (status.creator != 0 && status.creator != handoff.pid &&
        !createdInInnerNamespace(handoff.pid, status.creator, handoff.shmid)) {
        return fmt::format("segment {} was created by process {}", handoff.shmid, status.creator);
    }
    return "";
}

std::vector<FoundRun> findRuns() {
    std::vector<FoundRun> runs;
    std::vector<Candidate> unclaimed = allCandidates();
    auto claim = [&](std::int32_t shmid) {
        std::erase_if(unclaimed, [=](const Candidate& each) { return each.shmid == shmid; });
    };
    for (Handoff& handoff : readHandoffs(kHandoffDirectory)) {
        FoundRun& run = runs.emplace_back();
        run.handoff = std::move(handoff);
        run.damage = damageOf(run.handoff);
        if (run.damage.empty()) claim(run.handoff.shmid);
    }
    std::vector<FoundRun*> lost;
    for (FoundRun& run : runs) {
        if (!run.damage.empty()) lost.push_back(&run);
    }
    for (auto* search : {createdBy, createdElsewhere}) {
        std::erase_if(lost, [&](FoundRun* run) {
            const Candidate* candidate = search(run->handoff, unclaimed);
            if (candidate == nullptr) return false;
            lead(run->handoff, *candidate);
            claim(run->handoff.shmid);
            return true;
        });
    }
    for (FoundRun* run : lost) judgeLost(*run, unclaimed);
    for (const Candidate& candidate : unclaimed) {
        if (auto run = runWithoutFile(candidate)) runs.push_back(std::move(*run));
    }
    return runs;
}

}  // namespace tolvane::agent
