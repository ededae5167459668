// The shim's library for a server's word size, and the value of LD_PRELOAD.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "os/elf.h"

namespace tolvane::agent {

using Libraries = std::map<WordSize, std::string>;

// In the build tree of this program, or in its installation.
Libraries findLibraries();

// The directories that findLibraries searches.
std::vector<std::string> libraryDirectories();

// The library at a path. Throws Error if the file is not a library.
Libraries givenLibrary(const std::string& path);

// The entry of LD_PRELOAD for a server of that word size, whose start program may
// have another word size. If they differ, or the server's is unknown, the entry is a
// path with $LIB, so that the dynamic linker of each process selects the library.
std::string preloadValue(const Libraries& libraries, WordSize server, WordSize starter);

// The entry before the existing entries, without other copies of the shim.
std::string joinPreload(const std::string& ours, const std::string& present);

}  // namespace tolvane::agent
