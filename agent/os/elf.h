// The kind and word size of an executable file.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tolvane::agent {

enum class WordSize { kUnknown = 0, k32 = 32, k64 = 64 };

struct Executable {
    enum class Kind { kUnreadable, kElf, kScript, kOther };
    Kind kind = Kind::kUnreadable;
    WordSize wordSize = WordSize::kUnknown;  // of an ELF file for x86
    std::string interpreter;                 // of a script: the path after "#!"
};

Executable inspectExecutable(const std::string& path);

// The class and machine of an ELF header; kUnknown for anything but x86.
WordSize elfWordSize(std::string_view header);

// The file that execvp would execute.
std::optional<std::string> findInPath(const std::string& name);

}  // namespace tolvane::agent
