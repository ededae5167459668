// The root directory with which a server is measured: its own root, or a root that
// is prepared from its configuration.
#pragma once

#include <string>
#include <vector>

#include "apache/apache_config.h"
#include "apache/probe.h"

namespace tolvane::agent {

struct MeasuredRoot {
    std::string directory;
    bool prepared = false;
    bool hasSslHosts = false;
    std::string module;
    ServerFacts facts;
    std::vector<std::string> notes;  // deviations from the expected measurement
};

// Queries the Apache that the command starts. If its own root is not suitable, or
// if `always` is set, prepares `wanted` or, if that is empty, a directory for this
// server. Throws Error.
MeasuredRoot prepareRoot(const ServerCommand& command, const std::string& wanted, bool always);

// The value of SSL_FACTOR for the server.
const char* sslFactorFor(const MeasuredRoot& root);

}  // namespace tolvane::agent
