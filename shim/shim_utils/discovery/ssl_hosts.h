// The two kinds of section in an Apache configuration that concern SSL.
#pragma once

#include <cstdio>

namespace tolvane {

// Reads the virtual host section that `line` opens to its end, and records its
// address as an SSL address when the section switches the SSL engine on.
// `line` has room for kLineSize bytes and is reused.
void getSSLWebSites(std::FILE* stream, char* line);

// Reads past the end of the section that the caller has just seen opened, the
// sections nested in it included.
void ignoreSSLdirectives(std::FILE* stream);

// Appends one SSL address; `port` may be kAnyPort.
void addSSLIpAddress(int port, const char* text);

}  // namespace tolvane
