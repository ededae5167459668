// The two kinds of section in an Apache configuration that concern SSL.
#pragma once

#include <cstdio>

namespace tolvane {

// Reads the virtual host section that `line` opens, to its end. If the section
// turns the SSL engine on, adds its address as an SSL address. `line` has room for
// kLineSize bytes and is reused.
void getSSLWebSites(std::FILE* stream, char* line);

// Skips the rest of the section whose opening line the caller has read, nested
// sections included.
void ignoreSSLdirectives(std::FILE* stream);

// Appends one SSL address; `port` may be kAnyPort.
void addSSLIpAddress(int port, const char* text);

}  // namespace tolvane
