// An Apache's configuration, reduced to the directives that the shim reads.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "apache/endpoint.h"
#include "apache/probe.h"

namespace tolvane::agent {

struct MeasuredConfig {
    std::vector<Endpoint> listen;
    std::vector<Endpoint> sslHosts;
    int processLimit = 0;
    std::string module;              // "prefork", "worker", "event"
    bool needsTranslation = false;   // the shim cannot read the file itself
    std::vector<std::string> notes;  // deviations from the expected measurement
};

using FileReader = std::function<std::optional<std::string>(const std::string& path)>;
using VariableReader = std::function<std::optional<std::string>(const std::string& name)>;

// Throws Error if a file cannot be read or there is no listening address.
MeasuredConfig readMeasuredConfig(const ServerFacts& facts, const FileReader& readText,
                                  const VariableReader& variable);

}  // namespace tolvane::agent
