// The resources that this process uses.
#pragma once

#include <cstdint>

namespace tolvane::agent {

struct ProcessFacts {
    double cpuSeconds = 0;  // user and system
    std::uint64_t residentBytes = 0;
    std::uint64_t openDescriptors = 0;
    double started = 0;  // Unix time
};

ProcessFacts readProcessFacts();

}  // namespace tolvane::agent
