// Files that lie in memory: whoever opens the path of such a file with `fopen`
// reads it, and closes it with `fclose`. Other files are real ones.
#pragma once

#include <cstdio>
#include <string_view>

namespace tolvane::fuzz {

class MemoryFile {
  public:
    // `path` and the text stay where they are. Without a text there is no such file.
    explicit MemoryFile(std::string_view path);
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    void hold(std::string_view text);
    void remove();

    bool isAt(std::string_view path) const { return path == path_; }
    bool isBehind(const std::FILE* stream) const { return stream == stream_; }
    std::FILE* open();
    std::size_t read(char* to, std::size_t size);
    void close();

  private:
    std::string_view path_;
    std::string_view text_;
    std::string_view rest_;  // not read yet
    bool there_ = false;
    std::FILE* stream_ = nullptr;  // stays for the next time
    bool open_ = false;
    char buffer_[BUFSIZ];
};

}  // namespace tolvane::fuzz
