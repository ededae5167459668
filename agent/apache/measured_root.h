// The root directory that a server is measured with: its own, or one that is
// prepared from its configuration.
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
    std::vector<std::string> notes;  // what is not measured as expected
};

// Asks the Apache that the command starts, and prepares `wanted`, or a
// directory of its own, when its own root does not do. `always` prepares even
// then. Throws Error.
MeasuredRoot prepareRoot(const ServerCommand& command, const std::string& wanted, bool always);

// How the server has to be told whether it serves SSL.
const char* sslFactorFor(const MeasuredRoot& root);

}  // namespace tolvane::agent
