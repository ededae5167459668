// Files and directories that the shim and the agent share.
#pragma once

namespace tolvane {

inline constexpr char kLibraryName[] = "libtolvane.so";

inline constexpr char kAgentDirectory[] = "/opt/tolvane/agent";
inline constexpr char kLogDirectory[] = "/opt/tolvane/agent/logs";
inline constexpr char kConfigDirectory[] = "/opt/tolvane/agent/config";
inline constexpr char kDataDirectory[] = "/opt/tolvane/agent/data";

// The handoff file describes the segment to an agent. Its name is "webadapter." and
// the id of the process that started the measurement:
//     Listen=*:80,10.0.0.1:443
//     Shmid=32769
//     Server_Type=APACHE
//     Structures=1
inline constexpr char kHandoffDirectory[] = "/opt/tolvane/agent/config/";
inline constexpr char kHandoffPrefix[] = "webadapter.";

// Exists while a process removes a segment.
inline constexpr char kLockFile[] = "/opt/tolvane/agent/data/web_adapter_LOCK";

// The messages of all measured processes, one line each.
inline constexpr char kLogFile[] = "/opt/tolvane/agent/logs/web_log";

// The agent's own: prepared server roots, links to the libraries of both word sizes
// for a build tree, the default directory for the totals, and the locks that assign
// servers to collectors.
inline constexpr char kPreparedRoots[] = "/opt/tolvane/agent/data/servers/";
inline constexpr char kPreloadDirectory[] = "/opt/tolvane/agent/data/preload";
inline constexpr char kCollectorState[] = "/opt/tolvane/agent/data/collector";
inline constexpr char kOwnershipFile[] = "/opt/tolvane/agent/data/collectors";

// Files below a server's root directory: Apache's configuration, the id of its main
// process, the name of its processing module, and a Netscape type's configuration.
inline constexpr char kApacheConfigurationFile[] = "conf/httpd.conf";
inline constexpr char kApachePidFile[] = "logs/httpd.pid";
inline constexpr char kApacheModuleFile[] = "logs/.tolvane_info";
inline constexpr char kNetscapeConfigurationFile[] = "config/magnus.conf";

}  // namespace tolvane
