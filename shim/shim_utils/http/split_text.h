// A text within an input that comes in parts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "shim_utils/platform/text.h"

namespace tolvane {

// A text of at most N bytes. It stays where it is in the input as long as it lies
// in one part. What lies in more is copied. A zeroed object has no text.
template <std::size_t N>
class SplitText {
  public:
    // The text begins at `p`.
    void begin(const char* p) {
        from_ = p;
        inPart_ = kept_ = 0;
        open_ = true;
    }
    // The text ends before `p`.
    void end(const char* p) {
        inPart_ = lengthTo(p);
        open_ = false;
        if (kept_ != 0) keep();
    }
    // The part of the input ends before `p`: copies what lies in it.
    void suspend(const char* p) {
        if (from_ == nullptr) return;
        if (open_) inPart_ = lengthTo(p);
        keep();
    }
    // The next part begins at `p`.
    void resume(const char* p) {
        if (open_) from_ = p;
    }
    void clear() {
        from_ = nullptr;
        inPart_ = kept_ = 0;
        open_ = false;
    }
    // Null when there is no text, or one of more than N bytes.
    Bytes text() const {
        if (kept_ > N || inPart_ > N) return {};
        return kept_ != 0 ? Bytes{buffer_, kept_} : Bytes{from_, inPart_};
    }

  private:
    // N + 1 for more than N bytes.
    std::uint32_t lengthTo(const char* p) const {
        const auto length = static_cast<std::size_t>(p - from_);
        return static_cast<std::uint32_t>(length > N ? N + 1 : length);
    }
    void keep() {
        if (kept_ + inPart_ > N) {
            kept_ = N + 1;
        } else {
            if (inPart_ != 0) std::memcpy(buffer_ + kept_, from_, inPart_);
            kept_ += inPart_;
        }
        from_ = nullptr;
        inPart_ = 0;
    }

    const char* from_ = nullptr;  // start of what lies in the present part; null: nothing
    std::uint32_t inPart_ = 0;    // bytes there
    std::uint32_t kept_ = 0;      // bytes in the buffer; N + 1: they did not fit
    bool open_ = false;           // the end has not been reached
    char buffer_[N];
};

}  // namespace tolvane
