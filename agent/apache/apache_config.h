// An Apache's real configuration, reduced to what a measured server's shim
// has to know, in words that the shim understands.
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
    bool needsTranslation = false;   // the shim could not read the file as it stands
    std::vector<std::string> notes;  // what will not be measured as one might expect
};

using FileReader = std::function<std::optional<std::string>(const std::string& path)>;
using VariableReader = std::function<std::optional<std::string>(const std::string& name)>;

// Throws Error when a file cannot be read or nothing listens.
MeasuredConfig readMeasuredConfig(const ServerFacts& facts, const FileReader& readText,
                                  const VariableReader& variable);

}  // namespace tolvane::agent
