// A prepared root directory, for a server with another file layout:
//   conf/httpd.conf        the addresses, SSL hosts and process limit
//   logs/.tolvane_info     the processing module
//   logs/httpd.pid         a link to the server's pid file
#pragma once

#include <string>

#include "apache/apache_config.h"
#include "apache/probe.h"

namespace tolvane::agent {

// The text of conf/httpd.conf.
std::string renderHttpdConf(const MeasuredConfig& config, const std::string& source);

// Whether the server's own root is suitable: the shim can read its configuration
// file, and all files have the names that the shim uses.
bool ownRootSuits(const ServerFacts& facts, const MeasuredConfig& config);

// Whether writeServerRoot created the root in the directory.
bool isPreparedRoot(const std::string& root);

// A directory under the agent's data directory. Its name contains the main
// configuration file and the pid file, so servers that share their files and differ
// in -D have different roots.
std::string defaultRoot(const ServerFacts& facts);

// Writes or updates the root. Throws Error and changes nothing if the directory
// contains files that writeServerRoot did not create, or files of another running
// server.
void writeServerRoot(const std::string& root, const ServerFacts& facts,
                     const MeasuredConfig& config);

}  // namespace tolvane::agent
