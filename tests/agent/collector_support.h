// What the tests of the collector share: publications as the shim makes them, and
// the collector's totals as text.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "collector/collector.h"
#include "fake_server.h"

namespace tolvane::agent::test {

inline constexpr char kState[] = "/opt/state";
inline constexpr char kConfig[] = "/opt/sites.toml";

void change(int semaphore, short units);

// One publication: `requests` with 1000 bytes each, for site 0 and category 0.
void publish(const FakeServer& server, int record, std::uint32_t requests);

// As the shim ends a server: the mark, then the removal.
void endServer(const FakeServer& server);

void writeSites(const std::string& first, const std::string& second = "");
CollectorOptions options(const char* config = "");

// The rows as "requests/bytes" by name, the server's own under "".
using Rows = std::map<std::string, std::string>;
Rows rowsOf(const Collector& collector, const std::string& server = "*:8080");

// The state of the only run of "*:8080".
RunState stateOf(const Collector& collector);

}  // namespace tolvane::agent::test
