#include "servers/library.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "os/agent_directories.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

std::string ownDirectory() {
    char path[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    if (length <= 0) return ".";
    std::string text(path, static_cast<std::size_t>(length));
    return text.substr(0, text.rfind('/'));
}

// Blanks and colons separate the entries of LD_PRELOAD and cannot be quoted.
void refuseUnpreloadable(const std::string& path) {
    if (path.find_first_of(" \t\n:;") == std::string::npos) return;
    fail(ErrorKind::kInvalidInput,
         "{}: the dynamic linker cannot load a library from a path with a blank or a colon", path);
}

// The dynamic linker replaces $LIB by the name of its library directory, which
// depends on its build.
const std::vector<const char*> kNames64 = {"lib/x86_64-linux-gnu", "lib64"};
const std::vector<const char*> kNames32 = {"lib/i386-linux-gnu", "lib32", "lib"};

// The directory of an installation that contains both libraries.
std::string installedDirectory() {
    std::string directory = ownDirectory() + "/../lib/tolvane";
    return realPath(directory).value_or(directory);
}

bool areInstalled(const Libraries& libraries) {
    std::string directory = installedDirectory() + "/";
    auto at = [&](WordSize size, const char* name) {
        auto found = libraries.find(size);
        return found != libraries.end() && found->second == directory + name + "/" + kLibraryName;
    };
    return at(WordSize::k64, kNames64.front()) && at(WordSize::k32, kNames32.front());
}

void link(const std::string& directory, const char* name, const std::string& library) {
    std::string place = directory + "/" + name;
    makeDirectories(place, 0755);
    replaceLink(place + "/" + kLibraryName, library);
}

}  // namespace

std::vector<std::string> libraryDirectories() {
    std::string base = ownDirectory();
    std::string installed = installedDirectory() + "/";
    std::vector<std::string> directories = {installed + kNames64.front(),
                                            installed + kNames32.front()};
    for (const char* relative :
         {"/../lib", "/../../release/lib", "/../../release32/lib", "/../lib64", "/../lib32",
          "/../lib/x86_64-linux-gnu", "/../lib/i386-linux-gnu"}) {
        directories.push_back(base + relative);
    }
    return directories;
}

Libraries findLibraries() {
    Libraries found;
    for (const std::string& directory : libraryDirectories()) {
        std::string path = directory + "/" + kLibraryName;
        Executable file = inspectExecutable(path);
        if (file.wordSize == WordSize::kUnknown) continue;
        found.emplace(file.wordSize, realPath(path).value_or(path));
    }
    return found;
}

Libraries givenLibrary(const std::string& path) {
    Executable file = inspectExecutable(path);
    if (file.kind == Executable::Kind::kUnreadable) {
        fail(ErrorKind::kInvalidInput, "{}: {}", path, std::strerror(errno == 0 ? ENOENT : errno));
    }
    if (file.kind != Executable::Kind::kElf || file.wordSize == WordSize::kUnknown) {
        fail(ErrorKind::kInvalidInput, "{} is not a library for this machine", path);
    }
    return {{file.wordSize, realPath(path).value_or(path)}};
}

std::string preloadValue(const Libraries& libraries, WordSize server, WordSize starter) {
    // Also when the word sizes are equal: the server's programs may have the other
    // word size, and the dynamic linker reports a library of the wrong word size.
    if (areInstalled(libraries)) {
        std::string directory = installedDirectory();
        refuseUnpreloadable(directory);
        return directory + "/$LIB" + "/" + kLibraryName;
    }
    bool choose = server == WordSize::kUnknown || starter != server;
    if (!choose || libraries.size() == 1) {
        auto found = server == WordSize::kUnknown ? libraries.begin() : libraries.find(server);
        if (found == libraries.end()) {
            fail(ErrorKind::kFailed,
                 "no {}-bit libtolvane.so is installed with this program; build it (cmake --preset "
                 "{} && cmake --build --preset {}) or pass it with --library",
                 static_cast<int>(server), server == WordSize::k32 ? "release32" : "release",
                 server == WordSize::k32 ? "release32" : "release");
        }
        refuseUnpreloadable(found->second);
        return found->second;
    }
    std::string directory = kPreloadDirectory;
    for (const auto& [size, library] : libraries) {
        for (const char* name : size == WordSize::k64 ? kNames64 : kNames32)
            link(directory, name, library);
    }
    return directory + "/$LIB" + "/" + kLibraryName;
}

std::string joinPreload(const std::string& ours, const std::string& present) {
    std::string result = ours;
    std::size_t at = 0;
    while (at < present.size()) {
        std::size_t end = std::min(present.find_first_of(" :", at), present.size());
        std::string entry = present.substr(at, end - at);
        at = end + 1;
        // Two copies of the shim would count twice.
        if (!entry.empty() && baseName(entry) != kLibraryName) result += ":" + entry;
    }
    return result;
}

}  // namespace tolvane::agent
