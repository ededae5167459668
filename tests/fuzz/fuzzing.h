// Shared by all fuzz targets: the bytes of an input, and the end of a run in
// which two results differ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// The entry points that libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace tolvane::fuzz {

// Ends the run unless the results agree; libFuzzer then keeps the input.
inline void mustAgree(bool agrees, const char* what) {
    if (agrees) return;
    std::fprintf(stderr, "DIFFERENCE: %s\n", what);
    std::abort();
}

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The bytes of an input. Behind its end they are 0.
class Input {
  public:
    explicit Input(std::string_view bytes) : rest_(bytes) {}

    bool empty() const { return rest_.empty(); }
    unsigned take() {
        if (rest_.empty()) return 0;
        const unsigned byte = static_cast<unsigned char>(rest_.front());
        rest_.remove_prefix(1);
        return byte;
    }
    std::uint32_t takeWord() {
        std::uint32_t word = 0;
        for (int i = 0; i < 4; ++i) word = word << 8 | take();
        return word;
    }
    std::string_view take(std::size_t length) {
        const std::string_view bytes = rest_.substr(0, length);
        rest_.remove_prefix(bytes.size());
        return bytes;
    }
    std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

}  // namespace tolvane::fuzz
