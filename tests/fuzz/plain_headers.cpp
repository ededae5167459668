#include "plain_headers.h"

#include <climits>

namespace tolvane::fuzz {
namespace {

constexpr int kNoByte = -1;  // behind the end

// A place in a text.
class Place {
  public:
    explicit Place(std::string_view text) : text_(text) {}

    int byte(long ahead = 0) const {
        const long i = at_ + ahead;
        return i < static_cast<long>(text_.size())
                   ? static_cast<unsigned char>(text_[static_cast<std::size_t>(i)])
                   : kNoByte;
    }
    bool atEnd() const { return byte() == kNoByte; }
    bool atSpace() const {
        switch (byte()) {
            case ' ':
            case '\t':
            case '\n':
            case '\v':
            case '\f':
            case '\r':
                return true;
            default:
                return false;
        }
    }
    bool atControl() const { return (byte() >= 0 && byte() < 32) || byte() == 127; }
    bool atDigit() const { return byte() >= '0' && byte() <= '9'; }
    bool startsWith(std::string_view name) const {
        for (std::size_t i = 0; i < name.size(); ++i) {
            if (byte(static_cast<long>(i)) != name[i]) return false;
        }
        return true;
    }

    void skip(long count) {
        for (; count > 0 && !atEnd(); --count) ++at_;
    }
    void skipSpace() {
        while (atSpace()) ++at_;
    }
    void skipWord() {
        while (!atEnd() && !atSpace()) ++at_;
    }
    void skipToLineFeed() {
        while (!atEnd() && byte() != '\n') ++at_;
    }

    int number() {
        long long value = 0;
        for (; atDigit(); ++at_) {
            value = value * 10 + (byte() - '0');
            if (value > INT_MAX) value = INT_MAX;
        }
        return static_cast<int>(value);
    }
    long position() const { return at_; }

  private:
    std::string_view text_;
    long at_ = 0;
};

// At the line feed that ends a header line: whether it ends the block too.
bool endsBlock(const Place& place) {
    return (place.byte(1) == '\r' && place.byte(2) == '\n') || place.byte(1) == '\0';
}

long methodLength(const Place& place) {
    const int first = place.byte();
    if (first == 'G') return 3;
    if (first == 'P') return place.byte(2) == 'T' ? 3 : 4;
    if (first == 'H') return 4;
    if (first == 'T') return 5;
    if (first == 'D') return 6;
    if (first == 'O') return 7;
    return 0;
}

}  // namespace

PlainRequest readRequest(std::string_view text) {
    PlainRequest request;
    Place place(text);
    place.skipSpace();
    place.skip(methodLength(place));
    place.skipSpace();
    if (place.atEnd()) return request;
    request.url.start = place.position();
    place.skipWord();
    request.url.length = place.position() - request.url.start;

    place.skipToLineFeed();
    while (!place.atEnd()) {
        place.skipSpace();
        if (place.startsWith("Host:")) {
            place.skip(5);
            place.skipSpace();
            if (place.atEnd()) return request;
            request.host.start = place.position();
            while (!place.atEnd() && !place.atSpace() && !place.atControl()) place.skip(1);
            request.host.length = place.position() - request.host.start;
            return request;
        }
        place.skipToLineFeed();
        if (place.atEnd() || endsBlock(place)) return request;
        place.skip(1);
    }
    return request;
}

PlainResponse readResponse(std::string_view text) {
    PlainResponse response;
    Place place(text);
    place.skipSpace();
    place.skipWord();
    place.skipSpace();
    response.status = place.number();

    place.skipToLineFeed();
    while (!place.atEnd()) {
        place.skipSpace();
        if (place.startsWith("Tv-Status:")) {
            place.skip(10);
            place.skipSpace();
            response.overrideCode = place.number();
        }
        place.skipToLineFeed();
        if (place.atEnd() || endsBlock(place)) return response;
        place.skip(1);
    }
    return response;
}

bool isStatusLine(std::string_view text) {
    const Place place(text);
    return (place.byte(0) == 'h' || place.byte(0) == 'H') &&
           (place.byte(1) == 't' || place.byte(1) == 'T') && place.byte(2) == 'T' &&
           (place.byte(3) == 'p' || place.byte(3) == 'P');
}

}  // namespace tolvane::fuzz
