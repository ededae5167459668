#include "apache/measured_root.h"

#include <cstdlib>

#include "apache/server_root.h"
#include "os/agent_directories.h"
#include "os/text.h"

namespace tolvane::agent {

MeasuredRoot prepareRoot(const ServerCommand& command, const std::string& wanted, bool always) {
    MeasuredRoot root;
    root.facts = probeServer(command);
    auto text = [](const std::string& path) { return readFile(path); };
    auto variable = [&](const std::string& name) -> std::optional<std::string> {
        auto found = root.facts.environment.find(name);
        if (found != root.facts.environment.end()) return found->second;
        const char* value = std::getenv(name.c_str());
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    };
    MeasuredConfig config = readMeasuredConfig(root.facts, text, variable);
    root.module = config.module;
    root.hasSslHosts = !config.sslHosts.empty();
    root.prepared = always || !ownRootSuits(root.facts, config);
    root.directory = root.facts.serverRoot;
    if (root.prepared) {
        root.directory = wanted.empty() ? defaultRoot(root.facts) : wanted;
        writeServerRoot(root.directory, root.facts, config);
    }
    root.notes = std::move(config.notes);
    return root;
}

const char* sslFactorFor(const MeasuredRoot& root) {
    return root.hasSslHosts ? "startssl" : "start";
}

}  // namespace tolvane::agent
