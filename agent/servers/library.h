// The shim's library for a server's word size, and how the server gets it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "os/elf.h"

namespace tolvane::agent {

using Libraries = std::map<WordSize, std::string>;

// Beside this program: in its build tree, or where an installation puts them.
Libraries findLibraries();

// The directories that findLibraries looks into.
std::vector<std::string> libraryDirectories();

// One library given by the operator. Throws Error when it is none.
Libraries givenLibrary(const std::string& path);

// What LD_PRELOAD names for a server of that word size, started through a
// program of the other one at times. When the two differ, or the server's is
// not known, the dynamic linker of each process chooses by itself: a directory
// is laid out for that.
std::string preloadValue(const Libraries& libraries, WordSize server, WordSize starter);

// Ours ahead of what is there already, without other copies of the shim.
std::string joinPreload(const std::string& ours, const std::string& present);

}  // namespace tolvane::agent
