// A root directory of our own for a server whose files lie elsewhere:
//   conf/httpd.conf        the addresses, SSL hosts and process limit
//   logs/.tolvane_info     the processing module
//   logs/httpd.pid         leads to the server's own pid file
#pragma once

#include <string>

#include "apache/apache_config.h"
#include "apache/probe.h"

namespace tolvane::agent {

// The text of conf/httpd.conf.
std::string renderHttpdConf(const MeasuredConfig& config, const std::string& source);

// The server's own root will do: one file that the shim can read as it is,
// under the names that it looks for.
bool ownRootSuits(const ServerFacts& facts, const MeasuredConfig& config);

// The directory holds a root that writeServerRoot made.
bool isPreparedRoot(const std::string& root);

// Under the agent's data directory, named after the main configuration file
// and the pid file: servers that share their files are told apart by -D.
std::string defaultRoot(const ServerFacts& facts);

// Writes or refreshes the root. Throws Error, and changes nothing, when the
// directory holds files that are not of our making, or those of another server
// that runs.
void writeServerRoot(const std::string& root, const ServerFacts& facts,
                     const MeasuredConfig& config);

}  // namespace tolvane::agent
