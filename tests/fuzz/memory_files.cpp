#include "memory_files.h"

#include <dlfcn.h>

#include <cstdio>
#include <map>

namespace tolvane::fuzz {
namespace {
std::map<std::string_view, std::string_view> files;
}  // namespace

void holdFile(std::string_view path, std::string_view text) {
    files[path] = text;
}

void removeFiles() {
    files.clear();
}

}  // namespace tolvane::fuzz

// Replaces the C library's; it is named `fopen64` there, since offsets of files
// have 64 bits.
extern "C" std::FILE* fopen(const char* path, const char* mode) {
    using tolvane::fuzz::files;
    if (const auto found = files.find(path); found != files.end()) {
        return fmemopen(const_cast<char*>(found->second.data()), found->second.size(), mode);
    }
    static const auto openFile =
        reinterpret_cast<decltype(&std::fopen)>(dlsym(RTLD_NEXT, "fopen64"));
    return openFile(path, mode);
}
