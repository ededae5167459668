#include "shim_utils/http/request_parser.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "guarded_text.h"

namespace tolvane::test {
namespace {

using namespace std::string_literals;

struct Request {
    std::string text;
    std::string url;
    std::string host = "(none)";
};

const Request kRequests[] = {
    {"GET /index.html HTTP/1.0\r\nHost: a.test\r\n\r\n", "/index.html", "a.test"},
    {"\r\n \t\r\n  GET /a?b=c&Host: HTTP/1.0\r\nHost: x\r\n\r\n", "/a?b=c&Host:", "x"},
    // Methods are skipped by their first letter alone.
    {"POST /a HTTP/1.1\r\n", "/a"},
    {"PUT /a HTTP/1.1\r\n", "/a"},
    {"HEAD /a HTTP/1.1\r\n", "/a"},
    {"TRACE /a HTTP/1.1\r\n", "/a"},
    {"DELETE /a HTTP/1.1\r\n", "/a"},
    {"OPTIONS * HTTP/1.1\r\n", "*"},
    {"PATCH /a HTTP/1.1\r\n", "CH"},
    {"CONNECT a.test:443 HTTP/1.1\r\nHost: b\r\n\r\n", "CONNECT", "b"},
    {"get /a HTTP/1.1\r\n", "get"},
    {"GET/a", "/a"},
    // Only white space ends the URL.
    {"GET /a\x01\x1f!\x7f\x80\xff 0123456789 HTTP/1.1\r\n", "/a\x01\x1f!\x7f\x80\xff"},
    {"GET /0123456789abc\x02\x03/0123456789\vHTTP/1.1\r\n", "/0123456789abc\x02\x03/0123456789"},
    {"PU", "(none)"},
    {"OPTI", "(none)"},
    {"GET \r\n\r\n", "(none)"},
    {"", "(none)"},
    // The value ends at blanks and control characters, and keeps its port.
    {"GET / HTTP/1.1\r\nHost:a.test:8080 \t\r\n\r\n", "/", "a.test:8080"},
    {"GET / HTTP/1.1\nHost: a.test\x01z\n\n", "/", "a.test"},
    {"GET / HTTP/1.1\nHost: a.test\x7fz\n\n", "/", "a.test"},
    {"GET / HTTP/1.1\nHost: a\0b\n\n"s, "/", "a"},
    {"GET / HTTP/1.1\r\nHost: caf\xc3\xa9.test\r\n\r\n", "/", "caf\xc3\xa9.test"},
    {"GET / HTTP/1.1\r\nHost:   \r\nAccept: x\r\n\r\n", "/", "Accept:"},
    {"GET / HTTP/1.1\r\nHost:  ", "/"},
    // Only this spelling, only at a line's beginning, only the first.
    {"GET / HTTP/1.1\r\nhost: a\r\nHOST: b\r\nX-Host: c\r\nA: Host: d\r\n\r\n", "/"},
    {"GET / HTTP/1.1\r\nA: b\r\n \t Host: c\r\nHost: d\r\n\r\n", "/", "c"},
    // The block's end: an empty line behind a header, or a NUL.
    {"GET / HTTP/1.1\r\nA: b\r\n\r\nHost: a\r\n", "/"},
    {"GET / HTTP/1.1\r\n\r\nHost: a\r\n", "/", "a"},
    {"GET / HTTP/1.1\nA: b\n\nHost: a\n", "/", "a"},
    {"GET / HTTP/1.1\nA: b\n\0Host: a\n"s, "/"},
};

TEST(RequestParser, FindsUrlAndHost) {
    for (const Request& request : kRequests) {
        SCOPED_TRACE(testing::PrintToString(request.text));
        const GuardedText text(request.text);
        const HeadTexts fields = parseHttpHeader(text.bytes());
        EXPECT_EQ(viewOf(fields.url), request.url);
        EXPECT_EQ(viewOf(fields.host), request.host);
    }
    EXPECT_EQ(parseHttpHeader({}).url.data, nullptr);
}

// The part of `whole` within the first `length` bytes of `text`.
std::string cutField(Bytes whole, const char* text, std::size_t length) {
    const auto at = static_cast<std::size_t>(whole.data - text);
    if (whole.data == nullptr || at >= length) return "(none)";
    return std::string(whole.data, std::min(whole.length, length - at));
}

// What has not arrived yet is not found; the rest is.
TEST(RequestParser, StopsWhereTheDataStops) {
    for (const Request& request : kRequests) {
        const HeadTexts whole = parseHttpHeader({request.text.data(), request.text.size()});
        for (std::size_t length = 0; length < request.text.size(); ++length) {
            SCOPED_TRACE(testing::PrintToString(request.text.substr(0, length)));
            const GuardedText text(std::string_view(request.text).substr(0, length));
            const HeadTexts fields = parseHttpHeader(text.bytes());
            EXPECT_EQ(viewOf(fields.url), cutField(whole.url, request.text.data(), length));
            EXPECT_EQ(viewOf(fields.host), cutField(whole.host, request.text.data(), length));
        }
    }
}

struct Response {
    std::string text;
    int status;
    int overrideCode = 0;
};

const Response kResponses[] = {
    {"HTTP/1.1 200 OK\r\nServer: x\r\n\r\n", 200},
    {"\r\n HTTP/1.1\t 503 \r\n", 503},
    {"HTTP/1.1 20x OK\r\n", 20},
    {"HTTP/1.1 abc 200\r\n", 0},
    {"HTTP/1.1 -200\r\n", 0},
    {"HTTP/1.1\r\n302 Found\r\n", 302},
    {"", 0},
    {"HTTP/1.1 2147483647 x\r\n", INT_MAX},
    {"HTTP/1.1 2147483648 x\r\n", INT_MAX},
    {"HTTP/1.1 99999999999999999999999 x\r\n", INT_MAX},
    // The last override header of the block decides.
    {"HTTP/1.1 200\r\n\t Tv-Status:\t503", 200, 503},
    {"HTTP/1.1 200\r\nTv-Status: 503\r\nA: b\r\nTv-Status: 404\r\n\r\n", 200, 404},
    {"HTTP/1.1 200\r\nTv-Status: 503\r\nTv-Status: none\r\n\r\n", 200, 0},
    {"HTTP/1.1 200\r\nTv-Status: 99999999999\r\n\r\n", 200, INT_MAX},
    {"HTTP/1.1 200 Tv-Status: 503\r\ntv-status: 503\r\nX-Tv-Status: 503\r\n\r\n", 200},
    {"HTTP/1.1 200\r\nA: b\r\n\r\nTv-Status: 503\r\n", 200},
    {"HTTP/1.1 200\nA: b\n\0Tv-Status: 503\n"s, 200},
};

TEST(ResponseParser, FindsStatusAndOverride) {
    for (const Response& response : kResponses) {
        SCOPED_TRACE(testing::PrintToString(response.text));
        const GuardedText text(response.text);
        const ResponseStatus found = parseHttpWriteHeader(text.bytes());
        EXPECT_EQ(found.status, response.status);
        EXPECT_EQ(found.overrideCode, response.overrideCode);
    }
    EXPECT_EQ(parseHttpWriteHeader({}).status, 0);
}

TEST(ResponseParser, StopsWhereTheDataStops) {
    const std::string whole = "HTTP/1.1 302 Found\r\nTv-Status: 503\r\n\r\n";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        const GuardedText text(std::string_view(whole).substr(0, length));
        const ResponseStatus found = parseHttpWriteHeader(text.bytes());
        const int status[] = {0, 3, 30, 302};
        EXPECT_EQ(found.status, status[length < 10 ? 0 : length < 12 ? length - 9 : 3]);
        const int code[] = {0, 5, 50, 503};
        EXPECT_EQ(found.overrideCode, code[length < 32 ? 0 : length < 34 ? length - 31 : 3]);
    }
}

TEST(ResponseParser, TestsTheStatusLineOnFourBytes) {
    for (const char* text : {"HTTP", "hTTp/1.1 200", "htTP"}) {
        EXPECT_TRUE(beginsWithStatusLine(GuardedText(text).bytes())) << text;
    }
    for (const char* text : {"HTtP", "HTT", "", " HTTP", "XTTP", "HXTP", "HTXP", "HTTX"}) {
        EXPECT_FALSE(beginsWithStatusLine(GuardedText(text).bytes())) << text;
    }
    EXPECT_FALSE(beginsWithStatusLine({}));
}

}  // namespace
}  // namespace tolvane::test
