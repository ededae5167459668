#include "servers/attached.h"

#include <algorithm>

#include "os/process.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

enum class Mapping { kNone, kReadOnly, kWritable };

// A line of /proc/PID/maps for a System V segment, whose inode number is the
// segment's identifier:
//   7f3c14a00000-7f3c14a4d000 rw-s 00000000 00:01 32769   /SYSV00000000 (deleted)
Mapping mappingOf(const std::string& line, const std::string& shmid) {
    if (line.find("/SYSV") == std::string::npos) return Mapping::kNone;
    auto fields = splitWords(line);
    if (fields.size() < 6 || fields[4] != shmid || fields[5].compare(0, 5, "/SYSV") != 0) {
        return Mapping::kNone;
    }
    return fields[1].find('w') != std::string::npos ? Mapping::kWritable : Mapping::kReadOnly;
}

// Another agent can have write access too, so write access is not sufficient. The
// library can have another name, but a measured process always has the variable.
bool isServers(pid_t pid, const std::vector<std::string>& mappings) {
    if (mapsLibrary(mappings)) return true;
    auto environment = processEnvironment(pid);
    return !environment || environment->count("WEB_SERVER") != 0;
}

}  // namespace

AttachedProcesses attachedProcesses(std::int32_t shmid, pid_t mainProcess) {
    AttachedProcesses attached;
    std::string wanted = std::to_string(shmid);
    for (pid_t pid : allProcesses()) {
        auto mappings = processMappings(pid);
        if (!mappings) continue;
        Mapping found = Mapping::kNone;
        for (const std::string& line : *mappings) {
            Mapping mapping = mappingOf(line, wanted);
            if (mapping > found) found = mapping;
        }
        if (found == Mapping::kNone || !sharesIpcNamespace(pid)) continue;
        bool servers =
            found == Mapping::kWritable && (pid == mainProcess || isServers(pid, *mappings));
        (servers ? attached.servers : attached.others).push_back(pid);
    }
    return attached;
}

bool mapsSegment(const std::vector<std::string>& mappings, std::int32_t shmid) {
    std::string wanted = std::to_string(shmid);
    return std::any_of(mappings.begin(), mappings.end(), [&](const std::string& line) {
        return mappingOf(line, wanted) != Mapping::kNone;
    });
}

MainProcess mainProcessOf(std::int32_t parentPid, std::size_t attachedCount,
                          const AttachedProcesses& attached) {
    const pid_t oldest = oldestOf(attached.servers);
    if (parentPid <= 0) return {oldest, false};
    bool inner = false;
    for (pid_t pid : attached.servers) {
        std::vector<pid_t> ids = namespaceIds(pid);
        inner = inner || ids.size() > 1;
        if (ids.size() > 1 && ids.back() == parentPid) return {pid, false};
    }
    if (!inner && processExists(parentPid)) return {parentPid, false};
    // Processes that are not visible here may include the main process.
    bool allVisible = attached.servers.size() + attached.others.size() >= attachedCount;
    return {oldest, allVisible};
}

std::size_t serverProcesses(std::size_t attached, const AttachedProcesses& known) {
    const std::size_t unknown = attached - std::min(attached, known.others.size());
    // Readers may attach and detach during the count; a server process that was seen
    // remains.
    return std::max(unknown, known.servers.size());
}

}  // namespace tolvane::agent
