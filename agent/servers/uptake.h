// When the processes of a server take a configuration into force, and when they
// publish their first counts.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "servers/handoff.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

// The handoff file does not contain these properties. They come from the environment
// of the server's processes, which only root and the server's user can read.
struct ServerMode {
    bool known = false;
    bool threaded = false;  // publishes by time
    bool messages = false;  // counts HTTP messages, not socket calls
    int sendCalls = 5;      // between two publications of another server's process
};
ServerMode modeOf(const Handoff& handoff, pid_t mainProcess);

// Whether the module of an Apache, in the file below its root, has threads.
std::string moduleNamedIn(const std::string& file);
bool isThreadedModule(const std::string& module);

struct Uptake {
    std::optional<int> seconds;  // nothing: it depends on the requests only
    std::string text;            // a sentence
};
// `before` is the configuration that is replaced.
Uptake uptakeOf(const ServerMode& mode, const ConfigInfo& before, std::int32_t newInterval);

// "a process publishes when its connection closes", for a segment without counts.
std::string publicationText(const ServerMode& mode, std::int32_t interval);

// The time from which a written configuration is in force is kept as the handoff
// file's modification time, which only the owner and root can set to a time in the
// future. Without permission nothing is kept.
void keepInForceTime(const std::string& handoffPath, const Uptake& uptake);
// Seconds until a configuration is in force, from the file's modification time.
int secondsUntilInForce(std::time_t handoffWritten, std::int32_t version);

}  // namespace tolvane::agent
