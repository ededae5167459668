#include "shim_utils/http/body_reader.h"

#include <cstddef>

#include "shim_utils/platform/text.h"

namespace tolvane {
namespace {

// The value of a hexadecimal digit, -1 for any other character.
int hexDigit(char c) {
    if (isDigit(c)) return c - '0';
    const char lower = lowerCase(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Moves `p` behind the next line feed. False when there is none.
bool skipLine(const char*& p, const char* end) {
    p += positionOf('\n', p, static_cast<std::size_t>(end - p));
    if (p == end) return false;
    ++p;
    return true;
}

}  // namespace

void BodyReader::begin(Framing framing, std::uint64_t length) {
    framing_ = framing;
    left_ = framing == Framing::kLength ? length : 0;
    state_ = State::kSizeStart;
    ended_ = false;
}

BodyReader::Result BodyReader::read(const char*& p, const char* end) {
    switch (framing_) {
        case Framing::kNone:
            return Result::kEnd;
        case Framing::kLength:
            return readCounted(p, end);
        case Framing::kChunked:
            return readChunks(p, end);
        case Framing::kUntilClose:
            p = end;
            return Result::kMore;
        default:
            return Result::kInvalid;
    }
}

BodyReader::Result BodyReader::readCounted(const char*& p, const char* end) {
    const auto available = static_cast<std::uint64_t>(end - p);
    if (available < left_) {
        left_ -= available;
        p = end;
        return Result::kMore;
    }
    p += left_;
    left_ = 0;
    return Result::kEnd;
}

BodyReader::Result BodyReader::readChunks(const char*& p, const char* end) {
    while (p != end) {
        switch (state_) {
            case State::kData:
                if (readCounted(p, end) == Result::kMore) return Result::kMore;
                state_ = State::kDataEnd;
                break;
            case State::kExtension:
                if (skipLine(p, end)) endSizeLine();
                break;
            case State::kTrailer:
                if (skipLine(p, end)) state_ = State::kTrailerStart;
                break;
            default:
                if (!readChunkByte(*p++)) return Result::kInvalid;
                if (ended_) return Result::kEnd;
        }
    }
    return Result::kMore;
}

// A byte of everything but data, extensions and trailer fields.
bool BodyReader::readChunkByte(char c) {
    switch (state_) {
        case State::kDataEnd:
            state_ = c == '\r' ? State::kDataLineFeed : State::kSizeStart;
            return c == '\r' || c == '\n';
        case State::kDataLineFeed:
            state_ = State::kSizeStart;
            return c == '\n';
        case State::kSizeLineFeed:
            endSizeLine();
            return c == '\n';
        case State::kTrailerStart:
            ended_ = c == '\n';
            if (!ended_) state_ = c == '\r' ? State::kTrailerLineFeed : State::kTrailer;
            return true;
        case State::kTrailerLineFeed:
            ended_ = c == '\n';
            return ended_;
        default:
            return readSizeByte(c);
    }
}

bool BodyReader::readSizeByte(char c) {
    const int digit = hexDigit(c);
    if (digit >= 0) {
        constexpr std::uint64_t kLargest = INT64_MAX >> 4;
        if (left_ > kLargest) return false;
        left_ = left_ * 16 + static_cast<std::uint64_t>(digit);
        state_ = State::kSize;
        return true;
    }
    if (state_ == State::kSizeStart) return false;
    if (c == '\n') {
        endSizeLine();
    } else {
        state_ = c == '\r' ? State::kSizeLineFeed : State::kExtension;
    }
    return c == '\n' || c == '\r' || c == ';' || c == ' ' || c == '\t';
}

void BodyReader::endSizeLine() {
    state_ = left_ == 0 ? State::kTrailerStart : State::kData;
}

BodyReader::Result BodyReader::skip(std::uint64_t& n) {
    const bool counted =
        framing_ == Framing::kLength || (framing_ == Framing::kChunked && state_ == State::kData);
    if (!counted) {
        if (framing_ == Framing::kNone) return Result::kEnd;
        if (framing_ != Framing::kUntilClose) return Result::kInvalid;
        n = 0;
        return Result::kMore;
    }
    const std::uint64_t skipped = n < left_ ? n : left_;
    n -= skipped;
    left_ -= skipped;
    if (left_ != 0) return Result::kMore;
    if (framing_ == Framing::kLength) return Result::kEnd;
    state_ = State::kDataEnd;
    return n == 0 ? Result::kMore : Result::kInvalid;
}

}  // namespace tolvane
