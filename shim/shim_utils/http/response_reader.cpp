#include "shim_utils/http/response_reader.h"

#include <cstddef>
#include <cstring>

namespace tolvane {
namespace {

constexpr char kVersion[] = "HTTP/1.";
constexpr std::uint8_t kVersionLength = sizeof kVersion - 1;
constexpr std::uint8_t kStatusLength = 3;

// The status code where a status line has its usual form and is in sight up to its
// reason, else 0.
constexpr std::ptrdiff_t kUsualLength = 12;
int usualStatus(const char* p, const char* end) {
    if (end - p <= kUsualLength || std::memcmp(p, kVersion, kVersionLength) != 0) return 0;
    const char* digit = p + kVersionLength + 2;
    const char behind = p[kUsualLength];
    const bool usual = isDigit(p[kVersionLength]) && digit[-1] == ' ' && isDigit(digit[0]) &&
                       isDigit(digit[1]) && isDigit(digit[2]) && (behind == ' ' || behind == '\r');
    const int status = digit[0] * 100 + digit[1] * 10 + digit[2] - '0' * 111;
    return usual && status >= 100 ? status : 0;
}

}  // namespace

ResponseReader::Event ResponseReader::read(const char*& p, const char* end, Method method) {
    if (state_ == State::kStart && p != end) {
        fields_ = FieldReader{};
        matched_ = 0;
        status_ = static_cast<std::int16_t>(usualStatus(p, end));
        state_ = status_ != 0 ? State::kReason : State::kVersion;
        if (status_ != 0) p += kUsualLength;
    }
    while (p != end && state_ < State::kFields) {
        if (!readLine(p, end)) state_ = State::kNotHttp;
    }
    if (state_ == State::kFields && fields_.read(p, end, nullptr)) {
        return endHead(beginBody(method), p, end);
    }
    if (state_ == State::kBody) return bodyEvent(body_.read(p, end));
    if (state_ != State::kNotHttp) return Event::kMore;
    p = end;
    return Event::kNotHttp;
}

bool ResponseReader::readLine(const char*& p, const char* end) {
    switch (state_) {
        case State::kVersion:
            return readVersion(p, end);
        case State::kBeforeStatus:
            return readBeforeStatus(p);
        case State::kStatus:
            return readStatus(*p++);
        default:
            p += positionOf('\n', p, static_cast<std::size_t>(end - p));
            if (p == end) return true;
            ++p;
            state_ = State::kFields;
            return true;
    }
}

bool ResponseReader::readVersion(const char*& p, const char* end) {
    for (; p != end && matched_ != kVersionLength; ++p, ++matched_) {
        if (*p != kVersion[matched_]) return false;
    }
    if (p == end) return true;
    state_ = State::kBeforeStatus;
    matched_ = 0;
    return isDigit(*p++);
}

bool ResponseReader::readBeforeStatus(const char*& p) {
    if (*p == ' ') {
        ++p;
        matched_ = 1;
        return true;
    }
    const bool afterBlank = matched_ != 0;
    state_ = State::kStatus;
    matched_ = 0;
    return afterBlank;
}

bool ResponseReader::readStatus(char c) {
    if (matched_ != kStatusLength) {
        ++matched_;
        status_ = static_cast<std::int16_t>(status_ * 10 + (c - '0'));
        return isDigit(c);
    }
    state_ = c == '\n' ? State::kFields : State::kReason;
    return (c == ' ' || c == '\r' || c == '\n') && status_ >= 100;
}

int ResponseReader::status() const {
    const int code = fields_.overrideCode();
    return code != 0 ? code : status_;
}

bool ResponseReader::hasFinalStatus() const {
    return state_ >= State::kReason && state_ < State::kNotHttp && !interim();
}

bool ResponseReader::switchesProtocol(Method method) const {
    return status_ == kSwitchingProtocols ||
           (method == Method::kConnect && status_ >= 200 && status_ < 300);
}

ResponseReader::Event ResponseReader::beginBody(Method method) {
    state_ = State::kStart;
    if (interim()) return Event::kInterim;
    const bool bodyless = method == Method::kHead || status_ == 204 || status_ == 304;
    if (bodyless || switchesProtocol(method)) return Event::kMessage;
    const Framing framing = fields_.framing(Framing::kUntilClose, Framing::kUntilClose);
    if (framing == Framing::kLength && fields_.length() == 0) return Event::kMessage;
    body_.begin(framing, fields_.length());
    state_ = State::kBody;
    return Event::kHead;
}

// Where the body is in sight, the head and the body are a single event.
ResponseReader::Event ResponseReader::endHead(Event event, const char*& p, const char* end) {
    if (event != Event::kHead || p == end) return event;
    const char* const body = p;
    switch (body_.read(p, end)) {
        case BodyReader::Result::kEnd:
            state_ = State::kStart;
            return Event::kMessage;
        case BodyReader::Result::kMore:
            return Event::kHead;
        default:
            p = body;
            state_ = State::kNotHttp;
            return Event::kHead;
    }
}

ResponseReader::Event ResponseReader::bodyEvent(BodyReader::Result result) {
    if (result == BodyReader::Result::kMore) return Event::kMore;
    state_ = result == BodyReader::Result::kEnd ? State::kStart : State::kNotHttp;
    return result == BodyReader::Result::kEnd ? Event::kEnd : Event::kNotHttp;
}

ResponseReader::Event ResponseReader::skip(std::uint64_t& n) {
    if (state_ == State::kBody) return bodyEvent(body_.skip(n));
    state_ = State::kNotHttp;
    return Event::kNotHttp;
}

}  // namespace tolvane
