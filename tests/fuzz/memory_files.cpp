#include "memory_files.h"

#include <dlfcn.h>
#include <stdio_ext.h>

#include <algorithm>
#include <cstring>

#include "fuzzing.h"

namespace tolvane::fuzz {
namespace {

MemoryFile* files[4];
int numFiles = 0;

ssize_t readFile(void* file, char* to, std::size_t size) {
    return static_cast<ssize_t>(static_cast<MemoryFile*>(file)->read(to, size));
}

// The C library's own.
template <typename Call>
Call libraryCall(const char* name, Call) {
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

}  // namespace

MemoryFile::MemoryFile(std::string_view path) : path_(path) {
    mustAgree(numFiles < static_cast<int>(std::size(files)), "room for another file");
    files[numFiles++] = this;
}

void MemoryFile::hold(std::string_view text) {
    mustAgree(!open_, "file closed");
    text_ = text;
    there_ = true;
}

void MemoryFile::remove() {
    mustAgree(!open_, "file closed");
    there_ = false;
}

std::FILE* MemoryFile::open() {
    mustAgree(!open_, "file open once");
    if (!there_) return nullptr;
    open_ = true;
    rest_ = text_;
    if (stream_ == nullptr) {
        stream_ = fopencookie(this, "r", {readFile, nullptr, nullptr, nullptr});
        mustAgree(stream_ != nullptr, "stream");
        std::setvbuf(stream_, buffer_, _IOFBF, sizeof buffer_);
    }
    __fpurge(stream_);
    std::clearerr(stream_);
    return stream_;
}

void MemoryFile::close() {
    mustAgree(open_, "file closed once");
    open_ = false;
}

std::size_t MemoryFile::read(char* to, std::size_t size) {
    size = std::min(size, rest_.size());
    std::memcpy(to, rest_.data(), size);
    rest_.remove_prefix(size);
    return size;
}

}  // namespace tolvane::fuzz

// These take the place of the C library's in the program that they are linked
// to; `fopen` is named `fopen64` there, for the files' offsets have 64 bits.
extern "C" std::FILE* fopen(const char* path, const char* mode) {
    using namespace tolvane::fuzz;
    for (int i = 0; i < numFiles; ++i) {
        if (files[i]->isAt(path)) return files[i]->open();
    }
    static const auto openPath = libraryCall("fopen64", std::fopen);
    return openPath(path, mode);
}

extern "C" int fclose(std::FILE* stream) {
    using namespace tolvane::fuzz;
    for (int i = 0; i < numFiles; ++i) {
        if (!files[i]->isBehind(stream)) continue;
        files[i]->close();
        return 0;
    }
    static const auto closeStream = libraryCall("fclose", std::fclose);
    return closeStream(stream);
}
