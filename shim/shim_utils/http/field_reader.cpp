#include "shim_utils/http/field_reader.h"

#include <climits>
#include <cstddef>

#include "shim_utils/http/scan.h"
#include "shim_utils/platform/text.h"

namespace tolvane {
namespace {

struct Name {
    const char* text;  // in lower case
    std::uint8_t length;
};

// In the order of FieldReader::Field.
constexpr Name kNames[] = {
    {"", 0}, {"host", 4}, {"content-length", 14}, {"transfer-encoding", 17}, {"tv-status", 9},
};

constexpr Name kChunked = {"chunked", 7};
constexpr std::uint8_t kBehindChunked = kChunked.length + 1;  // blanks follow it
constexpr std::uint8_t kAnotherCoding = kChunked.length + 2;

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}
bool endsLine(char c) {
    return c == '\r' || c == '\n';
}

}  // namespace

bool FieldReader::read(const char*& p, const char* end, HostText* host) {
    while (p != end) {
        switch (state_) {
            case State::kLineStart:
                if (readLineStart(p)) return true;
                break;
            case State::kEmptyLine:
                state_ = State::kRestOfLine;
                if (*p == '\n') {
                    ++p;
                    return true;
                }
                break;
            case State::kName:
                readName(p, end);
                break;
            case State::kRestOfLine:
                p += positionOf('\n', p, static_cast<std::size_t>(end - p));
                if (p == end) return false;
                ++p;
                state_ = State::kLineStart;
                break;
            default:
                readValue(p, end, host);
        }
    }
    return false;
}

bool FieldReader::readLineStart(const char*& p) {
    switch (*p) {
        case 'H':
        case 'h':
            beginName(Field::kHost);
            return false;
        case 'C':
        case 'c':
            beginName(Field::kLength);
            return false;
        case 'T':
        case 't':
            beginName(Field::kCoding);
            return false;
        case '\n':
            ++p;
            return true;
        case '\r':
            ++p;
            field_ = Field::kOther;
            state_ = State::kEmptyLine;
            return false;
        case ' ':
        case '\t':
            // A continued line: some receivers append it to the value, others do not.
            if (framesBody()) invalid_ = true;
            state_ = State::kRestOfLine;
            return false;
        default:
            field_ = Field::kOther;
            state_ = State::kRestOfLine;
            return false;
    }
}

void FieldReader::beginName(Field field) {
    field_ = field;
    matched_ = 0;
    state_ = State::kName;
}

void FieldReader::readName(const char*& p, const char* end) {
    for (;;) {
        const Name& name = kNames[static_cast<int>(field_)];
        while (p != end && matched_ != name.length && lowerCase(*p) == name.text[matched_]) {
            ++p;
            ++matched_;
        }
        if (p == end) return;
        if (field_ != Field::kCoding || matched_ != 1 || lowerCase(*p) != 'v') break;
        field_ = Field::kStatus;
    }
    const bool whole = matched_ == kNames[static_cast<int>(field_)].length;
    if (whole && *p == ':') {
        ++p;
        state_ = State::kBeforeValue;
        return;
    }
    // Receivers differ on a blank between name and colon.
    if (whole && isBlank(*p) && framesBody()) invalid_ = true;
    field_ = Field::kOther;
    state_ = State::kRestOfLine;
}

void FieldReader::readValue(const char*& p, const char* end, HostText* host) {
    switch (state_) {
        case State::kBeforeValue:
            while (p != end && isBlank(*p)) ++p;
            if (p != end) beginValue(p, host);
            return;
        case State::kHost:
            p = skipVisible(p, end);
            if (p == end) return;
            host->end(p);
            state_ = State::kRestOfLine;
            return;
        case State::kCoding:
            if (endsLine(*p)) {
                state_ = State::kRestOfLine;
            } else {
                readCoding(*p++);
            }
            return;
        case State::kStatus:
            readStatusDigit(*p);
            if (state_ == State::kStatus) ++p;
            return;
        default:
            readDigit(*p);
            if (state_ != State::kRestOfLine) ++p;
    }
}

void FieldReader::beginValue(const char* p, HostText* host) {
    switch (field_) {
        case Field::kHost:
            state_ = State::kRestOfLine;
            if (host == nullptr || hasHost_) return;
            hasHost_ = true;
            host->begin(p);
            state_ = State::kHost;
            return;
        case Field::kLength:
            if (hasLength_) invalid_ = true;
            hasLength_ = true;
            hasDigit_ = false;
            length_ = 0;
            state_ = State::kDigits;
            return;
        case Field::kCoding:
            hasCoding_ = true;
            matched_ = 0;
            state_ = State::kCoding;
            return;
        default:
            overrideCode_ = 0;
            state_ = State::kStatus;
    }
}

// A byte of a length's value.
void FieldReader::readDigit(char c) {
    if (isDigit(c) && state_ == State::kDigits) {
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (length_ > (INT64_MAX - digit) / 10) {
            invalid_ = true;
            return;
        }
        length_ = length_ * 10 + digit;
        hasDigit_ = true;
    } else if (isBlank(c)) {
        state_ = State::kBehindDigits;
    } else {
        if (!endsLine(c) || !hasDigit_) invalid_ = true;
        state_ = State::kRestOfLine;
    }
}

// A byte of a list of codings, of which the last one counts.
void FieldReader::readCoding(char c) {
    if (c == ',') {
        matched_ = 0;
    } else if (isBlank(c)) {
        if (matched_ == kChunked.length) matched_ = kBehindChunked;
        if (matched_ != 0 && matched_ < kChunked.length) matched_ = kAnotherCoding;
    } else if (matched_ < kChunked.length && lowerCase(c) == kChunked.text[matched_]) {
        ++matched_;
    } else {
        matched_ = kAnotherCoding;
    }
    chunked_ = matched_ == kChunked.length || matched_ == kBehindChunked;
}

void FieldReader::readStatusDigit(char c) {
    if (!isDigit(c)) {
        state_ = State::kRestOfLine;
        return;
    }
    const int digit = c - '0';
    overrideCode_ = overrideCode_ > (INT_MAX - digit) / 10 ? INT_MAX : overrideCode_ * 10 + digit;
}

Framing FieldReader::framing(Framing unchunked, Framing unsaid) const {
    if (invalid_ || (hasCoding_ && hasLength_)) return Framing::kUnknown;
    if (hasCoding_) return chunked_ ? Framing::kChunked : unchunked;
    return hasLength_ ? Framing::kLength : unsaid;
}

}  // namespace tolvane
