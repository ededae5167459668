#include "cli/sample_notes.h"

#include <fmt/format.h>

#include "os/text.h"

namespace tolvane::agent {

std::string serverHeading(const Server& server, const Sample& sample) {
    std::string configuration = "no configuration yet";
    if (sample.version > 0) {
        configuration = fmt::format("configuration {}, interval {} s", sample.version,
                                    sample.config.info->interval);
    }
    return fmt::format("Server {}, {}, {}: {}; {}", nameOf(server), server.handoff.serverType,
                       runStateName(server.state), server.reason, configuration);
}

std::vector<std::string> sampleNotes(const Sample& sample) {
    std::vector<std::string> notes;
    if (sample.version == kVersionCreated) {
        notes.push_back(
            "there is no configuration, so only the totals are counted; use 'tolvane configure "
            "FILE'");
    }
    if (!sample.config.steady) {
        notes.push_back(
            "a configuration is unfinished; if this lasts, run 'tolvane configure' again");
    }
    if (!sample.config.complaint.empty()) {
        notes.push_back("the configuration is out of range: " + sample.config.complaint);
    }
    if (!sample.steady) {
        notes.push_back(
            "the server was publishing during every copy; some sums may be inconsistent");
    }
    return notes;
}

}  // namespace tolvane::agent
