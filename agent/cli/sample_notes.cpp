#include "cli/sample_notes.h"

#include <fmt/format.h>

#include "os/text.h"
#include "servers/uptake.h"

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

std::vector<std::string> sampleNotes(const Server& server, const Sample& sample) {
    std::vector<std::string> notes;
    if (!server.published) {
        notes.push_back(fmt::format(
            "nothing is published yet, so every count is 0: {}",
            publicationText(modeOf(server.handoff, server.process), sample.config.info->interval)));
    }
    if (server.pending > 0) {
        notes.push_back(fmt::format("configuration {} is in force within {} s", sample.version,
                                    server.pending));
    } else if (noSiteCounted(sample)) {
        notes.push_back(
            "no request was counted for a site; compare the site names with what clients send as "
            "Host");
    }
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
