// Discovery of the web server's type, root directory and listening addresses.
#pragma once

namespace tolvane {

// Fills webServerType, rootDir and the port tables from the environment and
// the server's configuration files. Only the first call in a process does so.
void getWebServerInfo();

// The part for Apache: settings from the environment, the server's type and process
// limit, and its addresses from conf/httpd.conf. Before the call the port tables
// are empty and rootDir is set.
void getApacheConfigInfo();

// The part for the Netscape type: its address from config/magnus.conf. The same
// conditions apply.
void getNetscapeConfigInfo();

}  // namespace tolvane
