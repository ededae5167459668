#include "servers/handoff_repair.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

void repairHandoff(const Server& server) {
    const Handoff& handoff = server.handoff;
    replaceFile(handoff.path, fmt::format("Listen={}\nShmid={}\nServer_Type={}\nStructures={}\n",
                                          fmt::join(handoff.listen, ","), handoff.shmid,
                                          handoff.serverType, handoff.structures));
    // As the library creates it: agents of all users may lock it.
    if (::chmod(handoff.path.c_str(), 0777) != 0) {
        fail(ErrorKind::kFailed, "{}: {}", handoff.path, std::strerror(errno));
    }
}

}  // namespace tolvane::agent
