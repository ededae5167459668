// Which web server this is, where its files are and where it listens.
#pragma once

namespace tolvane {

// Fills webServerType, rootDir and the port tables from the environment and
// the server's configuration files. Does its work once per process.
void getWebServerInfo();

// The Apache part: settings from the environment, the server's generation and
// process limit, and its addresses from conf/httpd.conf. The port tables are
// empty and rootDir is set.
void getApacheConfigInfo();

// The Netscape type's part: its address from config/magnus.conf. The same holds.
void getNetscapeConfigInfo();

}  // namespace tolvane
