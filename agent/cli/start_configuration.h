// The configuration of a server that `tolvane run` starts.
#pragma once

#include <memory>
#include <string>

#include "tolvane/segment_format.h"

namespace tolvane::agent {

struct StartConfiguration {
    std::unique_ptr<ConfigInfo> block;
    std::string summary;
};

// Starts a process that waits for the measurement of the server which replaces this
// program, writes the configuration and ends. `root` is the server's WEB_SERVER_ROOT.
// Throws Error.
void configureOnceStarted(const StartConfiguration& configuration, const std::string& root,
                          bool quiet);

}  // namespace tolvane::agent
