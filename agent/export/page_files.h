// The files of the page, embedded in the program.
#pragma once

#include <string>
#include <string_view>

namespace tolvane::agent {

struct PageFile {
    const char* path;
    const char* contentType;
    std::string_view content;
};

// Null if there is no such file.
const PageFile* pageFile(std::string_view path);

}  // namespace tolvane::agent
