// The distribution's own Apache under the library, with each of its process modules.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/process.h"
#include "support/segment.h"

namespace tolvane::test {

inline constexpr int kApachePort = 8080;
inline constexpr int kSecondApachePort = 8081;

struct Module {
    const char* name;
    int processes;
    int connections;  // that they serve at the same time
    const char* settings;
};
void PrintTo(const Module& module, std::ostream* out);
extern const Module kModules[3];

// What its virtual hosts are configured as.
extern const std::vector<Site> kApacheSites;

class ApacheTest : public testing::TestWithParam<Module> {
  protected:
    // `environment` and `configuration` are in addition.
    static Process start(const std::vector<std::string>& environment = {},
                         const std::string& configuration = "");
    static bool threaded() { return std::string(GetParam().name) != "prefork"; }
    // Every process runs.
    static bool started(const Process& server);
};

}  // namespace tolvane::test
