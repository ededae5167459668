// Reading a configuration file from the disk.
#pragma once

#include <string>
#include <vector>

#include "configuration/config_file.h"
#include "os/text.h"

namespace tolvane::agent {

enum class WithoutSites { kRefused, kAccepted };

struct LoadedConfig {
    ConfigModel model;
    // "FILE:LINE:COLUMN: what is wrong", the format of editors and compilers, or
    // "FILE: why it cannot be read"; empty when the model is valid.
    std::vector<std::string> complaints;
};

// A file without sites is probably a mistake and would end the measurement of
// every site, so it is rejected unless kAccepted.
LoadedConfig loadConfig(const std::string& path, WithoutSites withoutSites,
                        PipeWriter writer = PipeWriter::kAwaited);

// The same for a text that was read from `name`.
LoadedConfig checkedConfig(std::string_view text, const std::string& name,
                           WithoutSites withoutSites);

// "2 sites, 3 host names, 1 category, 2 URL patterns, interval 60 s"
std::string summaryOf(const ConfigModel& model);

}  // namespace tolvane::agent
