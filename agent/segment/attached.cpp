#include "segment/attached.h"

#include <string>

#include "base/process.h"
#include "base/text.h"

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

}  // namespace

AttachedProcesses attachedProcesses(std::int32_t shmid) {
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
        (found == Mapping::kWritable ? attached.writers : attached.readers).push_back(pid);
    }
    return attached;
}

}  // namespace tolvane::agent
