#include "llhttp_reading.h"

#include <algorithm>
#include <cstdint>

#include "llhttp_run.h"
#include "shim_utils/platform/text.h"

namespace tolvane::fuzz {
namespace {

constexpr std::size_t kLongestHost = 256;
constexpr std::size_t kLongestTarget = 8192;

}  // namespace

LlhttpRun::LlhttpRun(std::string_view text, llhttp_type_t type, const std::vector<Method>& methods)
    : text_(text), methods_(methods) {
    llhttp_settings_init(&settings_);
    settings_.on_message_begin = call<&LlhttpRun::onMessageBegin>;
    settings_.on_url = append<&LlhttpRun::url_>;
    settings_.on_version_complete = call<&LlhttpRun::onVersion>;
    settings_.on_status_complete = call<&LlhttpRun::onStatus>;
    settings_.on_header_field = append<&LlhttpRun::field_>;
    settings_.on_header_field_complete = call<&LlhttpRun::onName>;
    settings_.on_header_value = append<&LlhttpRun::value_>;
    settings_.on_header_value_complete = call<&LlhttpRun::onValue>;
    settings_.on_headers_complete = call<&LlhttpRun::onHead>;
    settings_.on_body = onBody;
    settings_.on_chunk_header = call<&LlhttpRun::onChunkHeader>;
    settings_.on_chunk_complete = call<&LlhttpRun::onChunk>;
    settings_.on_message_complete = call<&LlhttpRun::onEnd>;
    llhttp_init(&parser_, type, &settings_);
    parser_.data = this;
    messageStart_ = parser_;
    // Otherwise it reads nothing behind "Connection: close", which a server may.
    llhttp_set_lenient_keep_alive(&parser_, 1);
}

int LlhttpRun::onMessageBegin() {
    inMessage_ = true;
    // It keeps a length that it has not used when it goes on behind "Connection: close".
    parser_.content_length = 0;
    hasVersion_ = headDone_ = inFields_ = inValue_ = emptyCoding_ = inExtension_ = unframed_ =
        hasHost_ = false;
    url_.clear();
    host_.clear();
    field_.clear();
    value_.clear();
    return 0;
}

int LlhttpRun::onVersion() {
    hasVersion_ = true;
    // It would wait for the rest of a preface.
    if (parser_.type == HTTP_REQUEST && parser_.method == HTTP_PRI) return -1;
    return parser_.http_major == 1 ? 0 : refuse("llhttp accepts another version than 1.x");
}

int LlhttpRun::onStatus() {
    inFields_ = true;
    return 0;
}

int LlhttpRun::onName() {
    inValue_ = true;
    return 0;
}

int LlhttpRun::onValue() {
    inValue_ = false;
    endHost();
    if (isField("transfer-encoding") && value_.empty()) emptyCoding_ = true;
    field_.clear();
    value_.clear();
    return 0;
}

bool LlhttpRun::isField(std::string_view name) const {
    return std::ranges::equal(field_, name, {}, lowerCase);
}

void LlhttpRun::endHost() {
    if (!isField("host") || hasHost_) return;
    hasHost_ = true;
    host_.assign(value_.begin(), std::ranges::find_if_not(value_, isVisible));
}

int LlhttpRun::onHead() {
    const auto orNone = [](const std::string& text, std::size_t longest) {
        return text.empty() || text.size() > longest ? "-" : text;
    };
    headDone_ = true;
    if (parser_.type == HTTP_REQUEST) {
        addEvent(orNone(url_, kLongestTarget) + " " + orNone(host_, kLongestHost));
        // The server decides whether the connection is upgraded.
        if (parser_.upgrade != 0) note("llhttp ends HTTP behind CONNECT or Upgrade");
        parser_.upgrade = 0;
        return beginBody();
    }
    const int status = parser_.status_code;
    if (interim()) return 1;
    addEvent(std::to_string(status));
    if (status == 101 || (method() == Method::kConnect && status / 100 == 2)) return 2;
    // It would read chunks behind a 204 or 304 that announces them.
    return method() == Method::kHead || status == 204 || status == 304 ? 1 : beginBody();
}

int LlhttpRun::beginBody() {
    if ((parser_.flags & F_CONTENT_LENGTH) != 0 && parser_.content_length > INT64_MAX) {
        note("llhttp accepts lengths from 2^63");
        unframed_ = true;
    }
    const bool ignored = emptyCoding_ && (parser_.flags & F_TRANSFER_ENCODING) == 0;
    if (ignored && (parser_.type == HTTP_REQUEST || (parser_.flags & F_CONTENT_LENGTH) != 0)) {
        note("llhttp ignores an empty Transfer-Encoding");
        unframed_ = true;
    }
    const bool unchunked =
        (parser_.flags & (F_TRANSFER_ENCODING | F_CHUNKED)) == F_TRANSFER_ENCODING;
    if (unchunked && parser_.type == HTTP_REQUEST) unframed_ = true;
    if (unframed_) {  // the reading stops at the next byte
        parser_.flags = F_CONTENT_LENGTH;
        parser_.content_length = 1;
    }
    return 0;
}

int LlhttpRun::onChunkHeader() {
    inExtension_ = false;
    return 0;
}

int LlhttpRun::onChunk() {
    const bool valid = inTrailer() || endsDataWithFeed_ || text_.substr(at_ - 1, 2) == "\r\n";
    endsDataWithFeed_ = false;
    if (valid) return 0;
    return refuse("llhttp accepts any two bytes behind the data of a chunk");
}

int LlhttpRun::onEnd() {
    inMessage_ = false;
    if (parser_.type == HTTP_RESPONSE && interim()) return 0;
    addEvent("end");
    ++ended_;
    return 0;
}

bool LlhttpRun::feed(std::string_view bytes) {
    for (const char& c : bytes) {
        inData_ = false;
        fed_ = c;
        if (llhttp_execute(&parser_, &c, 1) != HPE_OK) return false;
    }
    return true;
}

bool LlhttpRun::readByte() {
    if (inMessage_ && headDone_ && unframed_ && !inTrailer()) return false;
    if (!inMessage_) {
        messageStart_ = parser_;
        messageAt_ = at_;
    }
    const char c = text_[at_];
    const bool chunkLine = inMessage_ && headDone_ && !inData_ && !inTrailer();
    const bool behindReturn = inMessage_ && !inData_ && fed_ == '\r';
    const std::optional<std::string> bytes = given();
    if (!bytes) return false;
    if (!feedRepaired(*bytes)) return false;
    if (behindReturn && c != '\n') {
        std::erase_if(result_.reading.events,
                      [this](const auto& event) { return event.offset > at_; });
        refuse("llhttp ends a line with CR and any byte");
        return false;
    }
    if (chunkLine && parser_.content_length > INT64_MAX) {
        refuse("llhttp accepts lengths from 2^63");
        return false;
    }
    if (chunkLine && c == ';') inExtension_ = true;
    if (inMessage_ && !headDone_ && c == '\n') inFields_ = true;
    return true;
}

LlhttpReading LlhttpRun::read() {
    Reading& reading = result_.reading;
    for (; at_ < text_.size(); ++at_) {
        reading.stopped = !readByte();
        if (!reading.stopped) continue;
        reading.stoppedAt = at_;
        if (llhttp_get_errno(&parser_) != HPE_OK && !refused_) {
            result_.error = std::string(llhttp_errno_name(llhttp_get_errno(&parser_))) + " " +
                            reasonOf(parser_);
        }
        break;
    }
    return std::move(result_);
}

LlhttpReading readRequestsWithLlhttp(std::string_view text) {
    return LlhttpRun(text, HTTP_REQUEST, {}).read();
}

LlhttpReading readResponsesWithLlhttp(std::string_view text, const std::vector<Method>& methods) {
    return LlhttpRun(text, HTTP_RESPONSE, methods).read();
}

}  // namespace tolvane::fuzz
