// One text in guarded pages of its own.
#pragma once

#include "support/guarded_pages.h"

namespace tolvane::test {

class GuardedText {
  public:
    explicit GuardedText(std::string_view text) : pages_(text.size()), bytes_(pages_.put(text)) {}

    Bytes bytes() const { return bytes_; }

  private:
    GuardedPages pages_;
    Bytes bytes_;
};

inline std::string_view viewOf(Bytes bytes) {
    return bytes.data == nullptr ? std::string_view("(none)")
                                 : std::string_view(bytes.data, bytes.length);
}

}  // namespace tolvane::test
