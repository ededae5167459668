#include "shim_utils/http/request_reader.h"

#include <cstddef>
#include <cstring>

#include "shim_utils/http/scan.h"

namespace tolvane {
namespace {

constexpr int kLongestMethod = 32;

// Eight characters as a number; shorter texts end at its low end.
constexpr std::uint64_t packed(const char* text) {
    std::uint64_t word = 0;
    for (; *text != '\0'; ++text) word = word << 8 | static_cast<unsigned char>(*text);
    return word;
}

// Whether `c` may be in a method: a letter, a digit, or a mark that is no separator.
bool isTokenCharacter(char c) {
    constexpr std::uint32_t kAllowed[] = {0, 0x03FF6CFA, 0xC7FFFFFE, 0x57FFFFFF};
    const auto code = static_cast<unsigned char>(c);
    return code < 128 && (kAllowed[code / 32] >> code % 32 & 1U) != 0;
}

constexpr char kVersion[] = "HTTP/1.";
constexpr std::uint8_t kVersionLength = sizeof kVersion - 1;

}  // namespace

void RequestReader::skipEmptyLines(const char*& p, const char* end) const {
    if (state_ != State::kStart) return;
    while (p != end && (*p == '\r' || *p == '\n')) ++p;
}

Method RequestReader::method() const {
    if (methodText_ == packed("HEAD")) return Method::kHead;
    return methodText_ == packed("CONNECT") ? Method::kConnect : Method::kOther;
}

RequestReader::Event RequestReader::read(const char*& p, const char* end, RequestTexts& texts) {
    if (state_ == State::kStart) {
        skipEmptyLines(p, end);
        if (p == end) return Event::kMore;
        *this = RequestReader{};
        texts.host.clear();
        texts.target.clear();
        state_ = State::kMethod;
        if (readUsualLine(p, end, texts.target)) state_ = State::kFields;
    } else {
        texts.host.resume(p);
        texts.target.resume(p);
    }
    while (p != end && state_ < State::kFields) {
        if (readLine(p, end, texts)) continue;
        state_ = State::kNotHttp;
    }
    if (state_ == State::kFields && fields_.read(p, end, &texts.host)) return beginBody();
    if (state_ == State::kBody) return bodyEvent(body_.read(p, end));
    if (state_ == State::kNotHttp) {
        p = end;
        return Event::kNotHttp;
    }
    texts.host.suspend(p);
    texts.target.suspend(p);
    return Event::kMore;
}

// Moves `p` behind the request line if all of it is in sight and it has the form that
// nearly all clients send.
bool RequestReader::readUsualLine(const char*& p, const char* end, TargetText& target) {
    constexpr std::ptrdiff_t kBehindTarget = 11;  // " HTTP/1.1\r\n"
    const char* const url = p + 4;
    if (end - p < 5 + kBehindTarget || std::memcmp(p, "GET /", 5) != 0) return false;
    const char* const behind = skipVisible(url, end);
    if (end - behind < kBehindTarget || std::memcmp(behind, " HTTP/1.", 8) != 0 ||
        !isDigit(behind[8]) || behind[9] != '\r' || behind[10] != '\n') {
        return false;
    }
    target.begin(url);
    target.end(behind);
    methodText_ = packed("GET");
    p = behind + kBehindTarget;
    return true;
}

bool RequestReader::readLine(const char*& p, const char* end, RequestTexts& texts) {
    switch (state_) {
        case State::kMethod:
            return readMethod(p, end);
        case State::kBeforeTarget:
            if (*p == ' ') {
                ++p;
                return true;
            }
            texts.target.begin(p);
            state_ = State::kTarget;
            return static_cast<unsigned char>(*p) > ' ';
        case State::kTarget:
            return readTarget(p, end, texts.target);
        case State::kBeforeVersion:
            matched_ = 0;
            if (*p == ' ') {
                ++p;
            } else {
                state_ = State::kVersion;
            }
            return true;
        case State::kVersion:
            return readVersion(p, end);
        default:
            return readBehindVersion(*p++);
    }
}

bool RequestReader::readMethod(const char*& p, const char* end) {
    for (; p != end; ++p, ++matched_) {
        if (*p == ' ') {
            ++p;
            state_ = State::kBeforeTarget;
            return matched_ != 0;
        }
        if (!isTokenCharacter(*p) || matched_ == kLongestMethod) return false;
        methodText_ = methodText_ << 8 | static_cast<unsigned char>(*p);
    }
    return true;
}

bool RequestReader::readTarget(const char*& p, const char* end, TargetText& target) {
    p = skipVisible(p, end);
    if (p == end) return true;
    target.end(p);
    state_ = State::kBeforeVersion;
    return *p == ' ';
}

bool RequestReader::readVersion(const char*& p, const char* end) {
    for (; p != end && matched_ != kVersionLength; ++p, ++matched_) {
        if (*p != kVersion[matched_]) return false;
    }
    if (p == end) return true;
    state_ = State::kBehindVersion;
    matched_ = 0;
    return isDigit(*p++);
}

bool RequestReader::readBehindVersion(char c) {
    if (c == '\n') {
        state_ = State::kFields;
        return true;
    }
    const bool afterReturn = matched_ != 0;
    if (c == '\r') matched_ = 1;
    return !afterReturn && (c == '\r' || c == ' ');
}

RequestReader::Event RequestReader::beginBody() {
    const Framing framing = fields_.framing(Framing::kUnknown, Framing::kNone);
    const bool empty =
        framing == Framing::kNone || (framing == Framing::kLength && fields_.length() == 0);
    state_ = empty ? State::kStart : State::kBody;
    if (empty) return Event::kMessage;
    body_.begin(framing, fields_.length());
    return Event::kHead;
}

RequestReader::Event RequestReader::bodyEvent(BodyReader::Result result) {
    if (result == BodyReader::Result::kMore) return Event::kMore;
    state_ = result == BodyReader::Result::kEnd ? State::kStart : State::kNotHttp;
    return result == BodyReader::Result::kEnd ? Event::kEnd : Event::kNotHttp;
}

RequestReader::Event RequestReader::skip(std::uint64_t& n) {
    if (state_ == State::kBody) return bodyEvent(body_.skip(n));
    state_ = State::kNotHttp;
    return Event::kNotHttp;
}

Target splitTarget(Bytes target) {
    if (target.data == nullptr || target.length == 0 || target.data[0] == '/') return {{}, target};
    const char* const end = target.data + target.length;
    constexpr std::size_t kLongestScheme = 16;
    const char* p = target.data;
    while (p != end && *p != ':' && static_cast<std::size_t>(p - target.data) < kLongestScheme) ++p;
    if (end - p < 3 || std::memcmp(p, "://", 3) != 0) return {{}, target};

    const char* host = p += 3;
    for (; p != end && *p != '/' && *p != '?' && *p != '#'; ++p) {
        if (*p == '@') host = p + 1;
    }
    static constexpr char kRoot[] = "/";
    const auto rest = static_cast<std::size_t>(end - p);
    return {{host, static_cast<std::size_t>(p - host)},
            rest == 0 ? Bytes{kRoot, 1} : Bytes{p, rest}};
}

}  // namespace tolvane
