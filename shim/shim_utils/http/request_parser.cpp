#include "shim_utils/http/request_parser.h"

#include <cstring>

#include "shim_utils/http/scan.h"

namespace tolvane {
namespace {

const char* skipSpace(const char* p, const char* end) {
    while (p != end && isSpace(*p)) ++p;
    return p;
}

const char* skipWord(const char* p, const char* end) {
    p = skipVisible(p, end);
    while (p != end && !isSpace(*p)) p = skipVisible(p + 1, end);
    return p;
}

// The next line feed, or `end`.
const char* lineEnd(const char* p, const char* end) {
    return p + positionOf('\n', p, static_cast<std::size_t>(end - p));
}

// Whether the header block ends at the line feed `p`: an empty line or a NUL follows.
bool blockEnds(const char* p, const char* end) {
    auto left = end - p;
    return (left > 2 && p[1] == '\r' && p[2] == '\n') || (left > 1 && p[1] == '\0');
}

bool startsWith(const char* p, const char* end, const char* name, std::size_t length) {
    return static_cast<std::size_t>(end - p) >= length && std::memcmp(p, name, length) == 0;
}

// Calls `visit` with the start of each header line after the line feed `p` until
// the block ends. `visit` returns the position from which to search for the end of
// its line, or null to stop.
template <typename Visit>
void forEachHeader(const char* p, const char* end, Visit visit) {
    while (p != end) {
        p = skipSpace(p, end);
        if (p == end || (p = visit(p)) == nullptr) return;
        p = lineEnd(p, end);
        if (p == end || blockEnds(p, end)) return;
        ++p;
    }
}

// Length of the method at `p`, determined by its first letter.
int methodLength(const char* p, const char* end) {
    switch (*p) {
        case 'G':
            return 3;
        case 'P':
            return end - p > 2 && p[2] == 'T' ? 3 : 4;
        case 'H':
            return 4;
        case 'T':
            return 5;
        case 'D':
            return 6;
        case 'O':
            return 7;
        default:
            return 0;
    }
}

// The Host value at `p`, up to the next space or control character.
Bytes hostValue(const char* p, const char* end) {
    auto length = static_cast<std::size_t>(skipVisible(p, end) - p);
    return {p, positionOf('\x7f', p, length)};
}

constexpr char kHost[] = "Host:";
constexpr char kOverride[] = "Tv-Status:";

}  // namespace

HeadTexts parseHttpHeader(Bytes received) {
    HeadTexts fields;
    if (received.data == nullptr) return fields;
    const char* end = received.data + received.length;

    const char* p = skipSpace(received.data, end);
    if (p == end) return fields;
    int method = methodLength(p, end);
    p = skipSpace(end - p < method ? end : p + method, end);
    if (p == end) return fields;
    const char* urlEnd = skipWord(p, end);
    fields.url = {p, static_cast<std::size_t>(urlEnd - p)};

    forEachHeader(lineEnd(urlEnd, end), end, [&](const char* line) {
        if (!startsWith(line, end, kHost, sizeof kHost - 1)) return line;
        const char* value = skipSpace(line + sizeof kHost - 1, end);
        if (value != end) fields.host = hostValue(value, end);
        return static_cast<const char*>(nullptr);
    });
    return fields;
}

bool beginsWithStatusLine(Bytes written) {
    if (written.length < 4) return false;
    const char* p = written.data;
    return (p[0] == 'h' || p[0] == 'H') && (p[1] == 't' || p[1] == 'T') && p[2] == 'T' &&
           (p[3] == 'p' || p[3] == 'P');
}

ResponseStatus parseHttpWriteHeader(Bytes written) {
    ResponseStatus result = {0, 0};
    if (written.data == nullptr) return result;
    const char* end = written.data + written.length;

    const char* p = skipSpace(written.data, end);
    p = skipSpace(skipWord(p, end), end);
    result.status = numberAt(p, end);

    forEachHeader(lineEnd(p, end), end, [&](const char* line) {
        if (!startsWith(line, end, kOverride, sizeof kOverride - 1)) return line;
        const char* value = skipSpace(line + sizeof kOverride - 1, end);
        result.overrideCode = numberAt(value, end);
        return value;
    });
    return result;
}

}  // namespace tolvane
