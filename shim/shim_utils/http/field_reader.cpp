#include "shim_utils/http/field_reader.h"

#include <climits>
#include <cstddef>
#include <cstring>

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
    {"", 0},          {"host", 4},    {"content-length", 14}, {"transfer-encoding", 17},
    {"tv-status", 9}, {"upgrade", 7},
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

// Whether the bytes at `p` are those of the name, without case. The name has only
// lower-case letters and hyphens.
template <typename Word>
bool equalWords(const char* p, const char* name) {
    Word bytes;
    Word wanted;
    std::memcpy(&bytes, p, sizeof bytes);
    std::memcpy(&wanted, name, sizeof wanted);
    const Word letters = (wanted & ~Word{0} / 255 * 0x40) >> 1;  // the bit of the case, at letters
    return ((bytes ^ wanted) & ~letters) == 0;
}
bool beginsWith(const char* p, const Name& name) {
    if (name.length < 8) {  // at least 4
        const int last = name.length - 4;
        return equalWords<std::uint32_t>(p, name.text) &&
               equalWords<std::uint32_t>(p + last, name.text + last);
    }
    const int last = name.length - 8;
    if (!equalWords<std::uint64_t>(p, name.text)) return false;
    return equalWords<std::uint64_t>(p + last, name.text + last) &&
           (name.length <= 16 || equalWords<std::uint64_t>(p + 8, name.text + 8));
}

// Whether the line in [line, end) may be of a field that is read, the end of the head,
// or a continued line. True for few others. Most lines fail the first test.
inline bool mayMatter(const char* line, const char* end, bool ofResponse) {
    constexpr auto bit = [](char first) { return 1U << (first & 31); };
    constexpr std::uint32_t kFirst =
        bit('h') | bit('c') | bit('t') | bit('\r') | bit('\n') | bit(' ') | bit('\t');
    const std::uint32_t first = kFirst | (ofResponse ? bit('u') : 0);
    if ((first >> (*line & 31) & 1U) == 0) return false;
    if (end - line < 9) return true;
    const int letter = *line | 0x20;
    if (letter == 'c') return (line[8] | 0x20) == 'l';  // neither "Connection" nor "Cookie"
    return letter != 't' || (line[1] | 0x20) == 'r' || (line[1] | 0x20) == 'v';
}

}  // namespace

bool FieldReader::read(const char*& p, const char* end, HostText* host) {
    if (state_ != State::kLineStart && p != end) {  // a line that began in an earlier part
        const char* const from = p;
        p += positionOf('\n', p, static_cast<std::size_t>(end - p));
        if (p != end) ++p;
        if (readLine(from, p, host)) return true;
    }
    const char* line = p;
    const char* behindField = p;  // the end of the last line that was read
    const auto skipped = [&](const char* next) {
        if (next != behindField) field_ = Field::kOther;
    };
    const bool complete = forEachLineEnd(
        p, end, [&](const char* next) __attribute__((always_inline)) {
            const char* const present = line;
            line = next;
            if (!mayMatter(present, next, host == nullptr)) return false;
            if (next - present == 2 && *present == '\r') return true;
            skipped(present);
            behindField = next;
            return !readUsualLine(present, next, end, host) && readLine(present, next, host);
        });
    skipped(line);
    p = line;
    if (complete || line == end) return complete;
    p = end;
    readLine(line, end, host);
    return false;
}

// Reads a whole line if it is a Host field, or a Content-Length field in its usual form.
// `partEnd` is the end of the part of the input that has the line.
bool FieldReader::readUsualLine(const char* line, const char* next, const char* partEnd,
                                HostText* host) {
    const Field field = (*line | 0x20) == 'h' ? Field::kHost : Field::kLength;
    const Name& name = kNames[static_cast<int>(field)];
    const char* p = line + name.length;
    if (next - line < name.length + 4 || !beginsWith(line, name) || p[0] != ':' || p[1] != ' ') {
        return false;
    }
    p += 2;
    if (field == Field::kHost) {
        if (host == nullptr || hasHost_ || isBlank(*p)) return false;
        hasHost_ = true;
        host->begin(p);
        host->end(skipVisible(p, partEnd));
    } else {
        constexpr std::ptrdiff_t kSafeDigits = 18;
        std::uint64_t length = 0;
        const char* const digits = p;
        for (; isDigit(*p); ++p) length = length * 10 + static_cast<std::uint64_t>(*p - '0');
        if (p + 2 != next || p == digits || p - digits > kSafeDigits || hasLength_) return false;
        if (*p != '\r') return false;
        hasLength_ = true;
        length_ = length;
    }
    field_ = field;
    return true;
}

// Reads a line or a part of it. A line feed is only at the end of [p, end), which is
// not empty. True: it was the last line.
bool FieldReader::readLine(const char* p, const char* end, HostText* host) {
    const bool complete = end[-1] == '\n';
    while (p != end) {
        switch (state_) {
            case State::kLineStart:
                if (readLineStart(p, host == nullptr)) return true;
                break;
            case State::kEmptyLine:
                if (*p == '\n') return true;
                state_ = State::kRestOfLine;
                break;
            case State::kName:
                readName(p, end);
                break;
            case State::kRestOfLine:
                p = end;
                break;
            default:
                readValue(p, end, host);
        }
    }
    if (complete) state_ = State::kLineStart;
    return false;
}

bool FieldReader::readLineStart(const char*& p, bool ofResponse) {
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
        case 'U':
        case 'u':
            beginName(Field::kUpgrade);
            if (!ofResponse) state_ = State::kRestOfLine;
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
    const Name& expected = kNames[static_cast<int>(field_)];
    if (matched_ == 0 && end - p > expected.length && beginsWith(p, expected) &&
        p[expected.length] == ':') {
        p += expected.length + 1;
        state_ = State::kBeforeValue;
        return;
    }
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
            readCoding(*p++);
            return;
        case State::kFramingLineFeed:
            // Receivers differ on what a carriage return within a value means.
            if (*p != '\n') invalid_ = true;
            state_ = State::kRestOfLine;
            return;
        case State::kProtocol:
            readProtocol(*p++);
            return;
        case State::kStatus:
            readStatusDigit(*p);
            if (state_ == State::kStatus) ++p;
            return;
        default:
            readDigit(*p++);
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
        case Field::kUpgrade:
            matched_ = 0;
            state_ = State::kProtocol;
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
        endFramingValue(c);
    }
}

// `c` is the first byte behind the value of a length or of codings.
void FieldReader::endFramingValue(char c) {
    state_ = c == '\r'   ? State::kFramingLineFeed
             : c == '\n' ? State::kLineStart
                         : State::kRestOfLine;
}

// A byte of a list of codings, of which the last one counts.
void FieldReader::readCoding(char c) {
    if (endsLine(c)) return endFramingValue(c);
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

void FieldReader::readProtocol(char c) {
    constexpr char kHttp2[] = "h2c";
    if (lowerCase(c) != kHttp2[matched_]) {
        state_ = State::kRestOfLine;
    } else if (++matched_ == sizeof kHttp2 - 1) {
        upgradesToHttp2_ = true;
        state_ = State::kRestOfLine;
    }
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
