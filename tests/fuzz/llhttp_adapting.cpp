#include <algorithm>
#include <cstdint>

#include "llhttp_run.h"
#include "shim_utils/platform/text.h"

namespace tolvane::fuzz {
namespace {

constexpr std::size_t kLongestMethod = 32;

constexpr char kWrongLength[] = "llhttp stops at a wrong length, this reader behind the head";
constexpr char kBareFeed[] = "llhttp demands CR in front of LF";
constexpr char kNoField[] = "llhttp accepts no line that is not a field";
constexpr char kExtension[] = "llhttp accepts less in a chunk extension";

llhttp_t withoutLength(llhttp_t parser) {
    parser.flags = static_cast<std::uint16_t>(parser.flags & ~F_CONTENT_LENGTH);
    parser.content_length = 0;
    return parser;
}
bool isBlank(char c) {
    return c == ' ' || c == '\t';
}
bool isHexDigit(char c) {
    return isDigit(c) || (lowerCase(c) >= 'a' && lowerCase(c) <= 'f');
}
bool isMethodCharacter(char c) {
    return isDigit(c) || (lowerCase(c) >= 'a' && lowerCase(c) <= 'z') ||
           (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
}

}  // namespace

std::optional<std::string> LlhttpRun::given() {
    const char c = text_[at_];
    const std::string same(1, c);
    if (endsWrongStatus()) {
        refuse("llhttp accepts a status below 100, and leading zeros");
        return {};
    }
    if (inMessage_ && isVisible(c)) return same;
    if (!inMessage_) {
        if (c != '\r' && c != '\n') return same;
        if (parser_.type == HTTP_REQUEST) return same;
        refuse("llhttp skips empty lines in front of a response");
        return {};
    }
    if ((c == '\t' || c == '\f') && parser_.type == HTTP_REQUEST && !inFields_) {
        refuse("llhttp accepts tabs and form feeds in a target");
        return {};
    }
    if ((c == '\r' || c == '\n') && parser_.type == HTTP_REQUEST && !inFields_ && !hasVersion_) {
        refuse("llhttp accepts HTTP/0.9");
        return {};
    }
    const bool chunkDataEnds = headDone_ && inData_ && parser_.content_length == 0;
    if (chunkDataEnds) {
        endsDataWithFeed_ = c == '\n';
        return endsDataWithFeed_ ? note(kBareFeed, "\r\n") : same;
    }
    if (headDone_ && inData_) return same;
    const bool inHeadValue = inFields_ && !headDone_ && inValue_;
    if (inHeadValue && before() == '\n' && isBlank(c)) noteFold();
    if (c == '\t' && inHeadValue && framesBody()) {
        return note("llhttp accepts no tab behind a length or coding", " ");
    }
    if (c == '\r' && at_ + 1 != text_.size() && text_[at_ + 1] != '\n') {
        return givenForReturn();
    }
    if (isBlankBeforeStatus()) return note("llhttp accepts one blank in front of the status", "");
    return same;
}

// Whether the present byte makes it certain that the status is not one of three digits.
bool LlhttpRun::endsWrongStatus() const {
    const bool inLine = inMessage_ && !inFields_ && parser_.type == HTTP_RESPONSE;
    if (!inLine || at_ < messageAt_ + 9 || parser_.status_code >= 100) return false;
    const std::size_t status = text_.find_first_not_of(' ', messageAt_ + 8);
    return at_ >= status && at_ <= status + 3 && (!isDigit(text_[at_]) || at_ == status + 3);
}

// The value of the present field goes on in the next line.
void LlhttpRun::noteFold() {
    if (framesBody()) {
        note("llhttp joins a folded length or coding");
        unframed_ = true;
    }
    if (isField("host") && !hasHost_) {
        note("llhttp joins a folded Host");
        endHost();
    }
}

bool LlhttpRun::isBlankBeforeStatus() const {
    if (text_[at_] != ' ' || parser_.type == HTTP_REQUEST || at_ < messageAt_ + 9) return false;
    return text_.substr(messageAt_ + 8, at_ - messageAt_ - 8).find_first_not_of(' ') ==
           std::string_view::npos;
}

// A carriage return without a line feed: it belongs to its line.
std::string LlhttpRun::givenForReturn() {
    const bool lineStart = before() == '\n';
    const bool inValue = inValue_ && !lineStart;
    const bool inReason =
        parser_.type == HTTP_RESPONSE && !inFields_ && !headDone_ && at_ >= messageAt_ + 12;
    const bool inField = (inFields_ && !headDone_) || (inTrailer() && !lineStart);
    if (!inReason && !inField && !inExtension_) return "\r";
    if (inValue && framesBody()) unframed_ = true;
    if (inValue) endHost();
    return note("llhttp ends a line with CR and any byte", inValue || inReason ? " " : "x");
}

// For a byte that llhttp does not accept.
std::optional<std::string> LlhttpRun::repaired(char c) {
    const std::string reason = reasonOf(parser_);
    switch (llhttp_get_errno(&parser_)) {
        case HPE_INVALID_METHOD:
        case HPE_INVALID_URL:
        case HPE_CB_VERSION_COMPLETE:
            return repairedRequestLine();
        case HPE_INVALID_VERSION:
            if (reason == "Expected CRLF after version" && c == ' ') {
                return note("llhttp accepts no blank behind the version");
            }
            if (reason == "Invalid HTTP version" && parser_.http_major == 1) {
                return note("llhttp accepts 1.0 and 1.1 only", "1");
            }
            return {};
        case HPE_UNEXPECTED_SPACE:
            return note(kNoField, "x");
        case HPE_INVALID_HEADER_TOKEN:
            if (!inValue_) return repairedName(c);
            if (c == '\n') return note(kBareFeed, "\r\n");
            if (!isVisible(c)) endHost();
            return note("llhttp accepts no control character in a field", "x");
        case HPE_INVALID_CONTENT_LENGTH:
            unframed_ = true;
            return note(kWrongLength, " ");
        case HPE_INVALID_CHUNK_SIZE:
        case HPE_STRICT:
            return repairedChunkLine(c, reason);
        default:
            return {};
    }
}

std::optional<std::string> LlhttpRun::repairedName(char c) {
    if (isBlank(c) && framesBody()) unframed_ = true;
    note(kNoField);
    if (c == '\r') return "x:\r";
    if (c == '\n') return "x:\r\n";
    return "x";
}

std::optional<std::string> LlhttpRun::repairedChunkLine(char c, std::string_view reason) {
    const bool endsLine = c == '\r' || c == '\n';
    const std::string end = c == '\n' ? "\r\n" : std::string(1, c);
    if (c == '\n') note(kBareFeed);
    if (reason == "Invalid character in chunk size") {
        if (!inExtension_ && !(isHexDigit(before()) && (isBlank(c) || c == '\n'))) return {};
        if (c == '\n') return end;
        inExtension_ = true;
        return note(kExtension, ";x");
    }
    const bool behindQuote = reason.find("quote value") != std::string_view::npos;
    const bool inQuotes = reason.find("quoted") != std::string_view::npos;
    const bool atStart = !inQuotes && before() == ';';
    note(kExtension);
    if (!endsLine) return behindQuote ? ";x" : "x";
    return (inQuotes ? "\"" : atStart ? "x" : "") + end;
}

// Any method and target, when they are one.
std::optional<std::string> LlhttpRun::repairedRequestLine() {
    const std::string_view line = text_.substr(messageAt_);
    const auto* const methodEnd = std::ranges::find_if_not(line, isMethodCharacter);
    const auto length = static_cast<std::size_t>(methodEnd - line.begin());
    const auto target = std::min(line.find_first_not_of(' ', length), line.size());
    const auto* const targetEnd = std::find_if_not(line.begin() + target, line.end(), isVisible);
    const auto end = static_cast<std::size_t>(targetEnd - line.begin());
    const bool unfinished = length <= kLongestMethod && end == line.size();
    if (unfinished) {
        at_ = text_.size();
        parser_ = messageStart_;
        return "";
    }
    const bool valid = length != 0 && length <= kLongestMethod && target > length &&
                       target != end && end != line.size() && line[end] == ' ';
    if (!valid) return {};
    parser_ = messageStart_;
    at_ = messageAt_ + end;
    const bool connects = line.substr(0, length) == "CONNECT";
    if (!feed(connects ? "CONNECT a:1" : "GET /")) return {};
    url_ = line.substr(target, end - target);
    return note("llhttp knows some methods, and checks targets", " ");
}

bool LlhttpRun::feedRepaired(std::string bytes) {
    llhttp_t earlier = parser_;
    if (feed(bytes)) return true;
    for (int tries = 0; tries == 0 || !feed(bytes); ++tries) {
        if (refused_ || tries == 4) return false;
        const llhttp_t failed = parser_;
        if (reasonOf(parser_) == "Empty Content-Length") {
            parser_ = withoutLength(earlier);
            unframed_ = feed(note(kWrongLength, " 0\r\n"));
            earlier = parser_;
            continue;
        }
        switch (llhttp_get_errno(&parser_)) {
            case HPE_UNEXPECTED_CONTENT_LENGTH:
                note(kWrongLength);
                earlier = withoutLength(earlier);
                unframed_ = true;
                break;
            case HPE_INVALID_TRANSFER_ENCODING:
                note("llhttp accepts no coding behind chunked");
                llhttp_set_lenient_transfer_encoding(&earlier, 1);
                break;
            default:
                const std::optional<std::string> instead =
                    repaired(bytes.size() == 1 ? bytes[0] : text_[at_]);
                if (!instead) {
                    parser_ = failed;
                    return false;
                }
                bytes = *instead;
                if (parser_.error == HPE_OK) earlier = parser_;
        }
        parser_ = earlier;
    }
    llhttp_set_lenient_transfer_encoding(&parser_, 0);
    return true;
}

}  // namespace tolvane::fuzz
