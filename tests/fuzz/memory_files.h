// Files in memory: `fopen` of their paths reads their texts. Other files are real.
#pragma once

#include <string_view>

namespace tolvane::fuzz {

// `path` and `text` stay where they are.
void holdFile(std::string_view path, std::string_view text);
void removeFiles();

}  // namespace tolvane::fuzz
