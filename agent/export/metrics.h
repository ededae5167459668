// The state in Prometheus's text format, version 0.0.4.
#pragma once

#include <string>

#include "collector/state.h"
#include "os/process_facts.h"

namespace tolvane::agent {

// Sites and categories appear while they are configured.
std::string metricsText(const CollectorState& state, const ProcessFacts& process,
                        const std::string& version);

}  // namespace tolvane::agent
