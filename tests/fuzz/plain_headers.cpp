#include "plain_headers.h"

#include <algorithm>
#include <climits>
#include <string>

namespace tolvane::fuzz {
namespace {

constexpr std::string_view kSpace = " \t\n\v\f\r";

// A place in a text.
class Place {
  public:
    explicit Place(std::string_view text) : text_(text) {}

    std::size_t position() const { return at_; }
    std::string_view rest() const { return text_.substr(at_); }
    bool atEnd() const { return rest().empty(); }
    void skip(std::size_t count) { at_ = std::min(at_ + count, text_.size()); }
    void skipSpace() { at_ = std::min(text_.find_first_not_of(kSpace, at_), text_.size()); }
    void skipTo(std::string_view ends) {
        at_ = std::min(text_.find_first_of(ends, at_), text_.size());
    }
    int number() {
        long long value = 0;
        for (; !atEnd() && text_[at_] >= '0' && text_[at_] <= '9'; ++at_) {
            value = std::min<long long>(value * 10 + (text_[at_] - '0'), INT_MAX);
        }
        return static_cast<int>(value);
    }

  private:
    std::string_view text_;
    std::size_t at_ = 0;
};

std::size_t methodLength(std::string_view text) {
    if (text.starts_with('P')) return text.size() > 2 && text[2] == 'T' ? 3 : 4;
    for (const std::string_view method : {"GET", "HEAD", "TRACE", "DELETE", "OPTIONS"}) {
        if (text.starts_with(method[0])) return method.size();
    }
    return 0;
}

// Calls `found` behind the name and blanks of every such header, until it returns true.
template <typename Found>
void forEachHeader(Place place, std::string_view name, Found found) {
    place.skipTo("\n");
    while (!place.atEnd()) {
        place.skipSpace();
        if (place.rest().starts_with(name)) {
            place.skip(name.size());
            place.skipSpace();
            if (found(place)) return;
        }
        place.skipTo("\n");
        // An empty line ends the block, and so does a NUL.
        if (place.rest().starts_with("\n\r\n")) return;
        if (place.rest().starts_with(std::string_view("\n\0", 2))) return;
        place.skip(1);
    }
}

Stretch stretch(Place& place, std::string_view ends) {
    const std::size_t start = place.position();
    place.skipTo(ends);
    return {static_cast<long>(start), static_cast<long>(place.position() - start)};
}

}  // namespace

PlainRequest readRequest(std::string_view text) {
    PlainRequest request;
    Place place(text);
    place.skipSpace();
    place.skip(methodLength(place.rest()));
    place.skipSpace();
    if (place.atEnd()) return request;
    request.url = stretch(place, kSpace);
    forEachHeader(place, "Host:", [&](Place& value) {
        std::string ends = " \x7f";
        for (char control = 0; control < 32; ++control) ends += control;
        if (!value.atEnd()) request.host = stretch(value, ends);
        return true;
    });
    return request;
}

PlainResponse readResponse(std::string_view text) {
    PlainResponse response;
    Place place(text);
    place.skipSpace();
    place.skipTo(kSpace);
    place.skipSpace();
    response.status = place.number();
    forEachHeader(place, "Tv-Status:", [&](Place& value) {
        response.overrideCode = value.number();
        return false;
    });
    return response;
}

bool isStatusLine(std::string_view text) {
    constexpr std::string_view kEither[] = {"hH", "tT", "T", "pP"};
    for (std::size_t i = 0; i < 4; ++i) {
        if (i == text.size() || kEither[i].find(text[i]) == std::string_view::npos) return false;
    }
    return true;
}

}  // namespace tolvane::fuzz
