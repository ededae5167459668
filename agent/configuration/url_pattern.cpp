#include "configuration/url_pattern.h"

#include <fmt/format.h>

#include "os/error.h"
#include "os/text.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

namespace {

void refuseCharacters(std::string_view text) {
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7F) {
            fail(ErrorKind::kInvalidInput,
                 "a URL ends at the first blank, so nothing would match; write a blank as %20");
        }
        if (byte >= 0x80) {
            fail(ErrorKind::kInvalidInput,
                 "clients send bytes outside ASCII percent-encoded; write %{:02X} for the first "
                 "byte",
                 byte);
        }
        if (c == '#') {
            fail(ErrorKind::kInvalidInput,
                 "clients do not send '#' and the text after it; end the pattern before '#'");
        }
    }
}

void refuseBeginning(std::string_view text) {
    if (text.empty()) {
        fail(ErrorKind::kInvalidInput, "an empty pattern matches nothing; '*' matches every URL");
    }
    std::string start = lower(text.substr(0, 8));
    if (start.compare(0, 7, "http://") == 0 || start == "https://") {
        std::size_t path = text.find('/', text.find("//") + 2);
        fail(ErrorKind::kInvalidInput,
             "the URL of a request begins after the host name; write '{}' and put the host name "
             "under 'name' or 'hosts'",
             path == std::string_view::npos ? "/*" : text.substr(path));
    }
    if (text[0] != '/' && text[0] != '*' && text[0] != '\\') {
        fail(ErrorKind::kInvalidInput,
             "a URL begins with '/'; write '/{0}', or '*{0}' for any position", text);
    }
}

// Splits at the wildcards; the pieces may be empty.
std::vector<std::string> splitPieces(std::string_view text) {
    std::vector<std::string> pieces(1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '*') {
            pieces.emplace_back();
            continue;
        }
        if (text[i] == '\\') {
            ++i;
            if (i == text.size() || (text[i] != '*' && text[i] != '\\')) {
                fail(
                    ErrorKind::kInvalidInput,
                    "a backslash is allowed before '*' or '\\' only; write '\\\\' for a backslash");
            }
        }
        pieces.back() += text[i];
    }
    return pieces;
}

}  // namespace

UrlPattern parseUrlPattern(std::string_view text) {
    refuseBeginning(text);
    refuseCharacters(text);
    std::vector<std::string> pieces = splitPieces(text);
    UrlPattern pattern;
    if (pieces.size() > 1) {
        pattern.leadingWildcard = pieces.front().empty();
        pattern.trailingWildcard = pieces.back().empty();
    }
    // Neighbouring asterisks are one wildcard.
    std::erase_if(pieces, [](const std::string& piece) { return piece.empty(); });
    pattern.pieces = std::move(pieces);
    if (pattern.pieces.size() > kMaxPieces) {
        fail(ErrorKind::kInvalidInput,
             "the pattern has {} pieces of text between its '*'; at most {} are allowed",
             pattern.pieces.size(), kMaxPieces);
    }
    for (const std::string& piece : pattern.pieces) {
        if (piece.size() < kPieceSize) continue;
        fail(ErrorKind::kInvalidInput,
             "'{}' has {} bytes; at most {} are allowed between two '*'; shorten it with a '*'",
             piece, piece.size(), kPieceSize - 1);
    }
    return pattern;
}

}  // namespace tolvane::agent
