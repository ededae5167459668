#include "os/elf.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "os/text.h"

namespace tolvane::agent {

namespace {

std::string readHead(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return {};
    char head[256];
    ssize_t got = ::read(fd, head, sizeof head);
    ::close(fd);
    return got > 0 ? std::string(head, static_cast<std::size_t>(got)) : std::string();
}

bool isExecutableFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

WordSize elfWordSize(std::string_view header) {
    // The fields up to e_machine lie at the same offsets in both classes.
    if (header.size() < sizeof(Elf32_Ehdr) || header.substr(0, SELFMAG) != ELFMAG) {
        return WordSize::kUnknown;
    }
    Elf32_Half machine;
    std::memcpy(&machine, header.data() + offsetof(Elf32_Ehdr, e_machine), sizeof machine);
    if (header[EI_CLASS] == ELFCLASS32 && machine == EM_386) return WordSize::k32;
    if (header[EI_CLASS] == ELFCLASS64 && machine == EM_X86_64) return WordSize::k64;
    return WordSize::kUnknown;
}

Executable inspectExecutable(const std::string& path) {
    Executable result;
    std::string head = readHead(path);
    if (head.empty()) return result;
    if (head.compare(0, SELFMAG, ELFMAG) == 0) {
        result.kind = Executable::Kind::kElf;
        result.wordSize = elfWordSize(head);
    } else if (head.compare(0, 2, "#!") == 0) {
        result.kind = Executable::Kind::kScript;
        auto words = splitWords(splitLines(head).front().substr(2));
        if (!words.empty()) result.interpreter = words.front();
    } else {
        result.kind = Executable::Kind::kOther;
    }
    return result;
}

std::optional<std::string> findInPath(const std::string& name) {
    if (name.empty()) return std::nullopt;
    if (name.find('/') != std::string::npos) {
        return isExecutableFile(name) ? std::optional(name) : std::nullopt;
    }
    const char* path = std::getenv("PATH");
    std::string directories = path != nullptr ? path : "/bin:/usr/bin";
    for (std::size_t at = 0; at <= directories.size();) {
        std::size_t end = std::min(directories.find(':', at), directories.size());
        std::string directory = directories.substr(at, end - at);
        std::string candidate = (directory.empty() ? "." : directory) + "/" + name;
        if (isExecutableFile(candidate)) return candidate;
        at = end + 1;
    }
    return std::nullopt;
}

}  // namespace tolvane::agent
