#include "memory_files.h"

#include <dlfcn.h>

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

int closeFile(void* file) {
    static_cast<MemoryFile*>(file)->close();
    return 0;
}

// The C library's own: the sanitizer's is slower and guards nothing here.
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
    static const auto openCookie = libraryCall("fopencookie", fopencookie);
    mustAgree(!open_, "file open once");
    open_ = true;
    rest_ = text_;
    std::FILE* stream = openCookie(this, "r", {readFile, nullptr, nullptr, closeFile});
    if (stream != nullptr) std::setvbuf(stream, buffer_, _IOFBF, sizeof buffer_);
    return stream;
}

std::size_t MemoryFile::read(char* to, std::size_t size) {
    size = std::min(size, rest_.size());
    std::memcpy(to, rest_.data(), size);
    rest_.remove_prefix(size);
    return size;
}

}  // namespace tolvane::fuzz

// Takes the place of the C library's `fopen` in the program that it is linked to;
// its name there is `fopen64`, for the files' offsets have 64 bits.
extern "C" std::FILE* fopen(const char* path, const char* mode) {
    using namespace tolvane::fuzz;
    for (int i = 0; i < numFiles; ++i) {
        if (files[i]->isAt(path)) return files[i]->open();
    }
    static const auto openPath = libraryCall("fopen64", std::fopen);
    return openPath(path, mode);
}
