#include "random_conversation.h"

#include <cstdio>

namespace tolvane::fuzz {
namespace {

class Generator {
  public:
    explicit Generator(std::mt19937_64& random) : random_(random) { feeds_ = oneIn(8); }

    std::string request();
    std::string response(Method method);
    void damage(std::string& text);
    std::size_t upTo(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }
    bool oneIn(std::size_t n) { return upTo(n) == 0; }

  private:
    template <std::size_t N>
    std::string choice(const char* const (&texts)[N]) {
        return texts[upTo(N)];
    }
    std::string lineEnd() { return feeds_ && oneIn(4) ? "\n" : "\r\n"; }
    std::string chunks();
    std::string body(std::string& fields);
    std::string fieldsAndBody(bool bodyless);

    std::mt19937_64& random_;
    bool feeds_;  // some lines end with a line feed alone
};

std::string Generator::chunks() {
    static constexpr const char* kExtensions[] = {";e",     ";e=v", " ;e=\"x\"",   "x",  ";",
                                                  ";a;b=c", " ",    ";e=\"\\\"\"", "\t", "; e"};
    static constexpr const char* kOddSizes[] = {"7fffffffffffffff",
                                                "8000000000000000",
                                                "10000000000000005",
                                                "0000000000000000000",
                                                "0x5",
                                                "-1",
                                                "",
                                                " 5",
                                                "FFFFFFFFFFFFFFFF"};
    static constexpr const char* kTrailers[] = {"", "", "", "T: x\r\n", "A: b\r\nC: d\r\n"};
    std::string text;
    for (std::size_t n = upTo(4); n > 0; --n) {
        char size[20];
        const std::size_t length = upTo(40) + 1;
        std::snprintf(size, sizeof size, upTo(2) != 0 ? "%zx" : "%03zX", length);
        text += size + (oneIn(16) ? choice(kExtensions) : "") + lineEnd();
        text += std::string(length, "G\r\nx:"[upTo(5)]) + lineEnd();
    }
    return text + (oneIn(64) ? choice(kOddSizes) : "0") + lineEnd() + choice(kTrailers) + lineEnd();
}

// A body, and the field that announces it.
std::string Generator::body(std::string& fields) {
    std::string body;
    switch (upTo(4)) {
        case 0:
            body = std::string(upTo(50), 'G');
            fields += "Content-Length: " + std::to_string(body.size()) + lineEnd();
            break;
        case 1:
            body = chunks();
            fields += "Transfer-Encoding: " + std::string(oneIn(4) ? "gzip, " : "") + "chunked" +
                      lineEnd();
            break;
        default:
            break;
    }
    return body;
}

std::string Generator::fieldsAndBody(bool bodyless) {
    static constexpr const char* kFields[] = {"Host: a.test",
                                              "host:b.test:80 ",
                                              "HOST:\t",
                                              "Hosts: c",
                                              "Accept: */*",
                                              "Cookie: a=b",
                                              "Connection: close",
                                              "X-Long: 0123456789012345678901234567890123456789",
                                              "T: x",
                                              "Content-Type: a",
                                              "TE: trailers",
                                              "Empty:",
                                              "Transfer-Encoding-X: chunked"};
    static constexpr const char* kOdd[] = {"Content-Length : 5",
                                           " folded",
                                           "\tfolded",
                                           "no colon",
                                           "Content-Length: 5, 5",
                                           "Content-Length: +5",
                                           "Content-Length: 99999999999999999999",
                                           "Content-Length:",
                                           "Transfer-Encoding: xchunked",
                                           "Transfer-Encoding: chunked, gzip",
                                           "Content-Length: 0x5",
                                           "Transfer-Encoding: gzip",
                                           "Transfer-Encoding: chunked",
                                           "Content-Length: 7",
                                           "a\x01 b: c",
                                           "Content-Length: 1 2",
                                           "Transfer-Encoding: \tchunked ,",
                                           "Host : x",
                                           ": x",
                                           "Upgrade: h2c",
                                           "Content-Length: 9223372036854775807",
                                           "Content-Length: 9223372036854775808",
                                           "Content-Length: 18446744073709551621",
                                           "Content-Length:\r\n 5",
                                           "Transfer-Encoding:",
                                           "Transfer-Encoding: identity",
                                           "Transfer-Encoding: chunked;q=1",
                                           "Content-Length: 5\t",
                                           "Transfer-Encoding: chunked, chunked",
                                           "Transfer-Encoding: gzip\r\nTransfer-Encoding: chunked",
                                           "Transfer-Encoding:\r\n chunked",
                                           "Content_Length: 5",
                                           "Content-Length\t: 5",
                                           "Host: a b",
                                           "Transfer-Encoding: \"chunked\"",
                                           "Connection: upgrade",
                                           "Content-Length: 007",
                                           "Host:\r\n folded.test",
                                           "Transfer-Encoding: CHUNKED",
                                           "Transfer-Encoding: chunked\t"};
    std::string fields;
    for (std::size_t n = upTo(5); n > 0; --n) fields += choice(kFields) + lineEnd();
    if (oneIn(24)) fields += choice(kOdd) + lineEnd();
    if (oneIn(64)) fields += "Host: " + std::string(250 + upTo(12), 'h') + lineEnd();
    const std::string content = body(fields);
    if (oneIn(24)) fields += choice(kOdd) + lineEnd();
    return fields + lineEnd() + (bodyless ? "" : content);
}

std::string Generator::request() {
    static constexpr const char* kMethods[] = {"GET",      "GET",    "POST",    "HEAD", "PUT",
                                               "PROPFIND", "DELETE", "OPTIONS", "PATCH"};
    static constexpr const char* kOddMethods[] = {"get",     "BREW", "G@T", "",
                                                  "CONNECT", " GET", "PRI"};
    static constexpr const char* kTargets[] = {
        "/", "/x", "/a/b?c=d&e", "http://c.test/y", "https://u@d.test:444?q", "/%20"};
    static constexpr const char* kOddTargets[] = {"*",     "x",     "",        "/a b",
                                                  "/\x01", "/\x80", "a.test:1"};
    static constexpr const char* kVersions[] = {"HTTP/1.1", "HTTP/1.1", "HTTP/1.1", "HTTP/1.0"};
    static constexpr const char* kOddVersions[] = {"HTTP/2.0",  "http/1.1", "HTTP/1.5", "",
                                                   "HTTP/1.1 ", "HTTP/1.",  "HTTP/0.9"};
    std::string text = oneIn(16) ? "\r\n" : "";
    text += oneIn(32) ? choice(kOddMethods) : choice(kMethods);
    text += oneIn(16) ? "  " : " ";
    text += oneIn(32) ? choice(kOddTargets) : choice(kTargets);
    if (oneIn(512)) text += "?" + std::string(8180 + upTo(20), 'q');
    text += " ";
    text += oneIn(32) ? choice(kOddVersions) : choice(kVersions);
    return text + lineEnd() + fieldsAndBody(false);
}

std::string Generator::response(Method method) {
    static constexpr const char* kLines[] = {
        "HTTP/1.1 200 OK", "HTTP/1.1 200 OK",         "HTTP/1.0 404 Not Found",   "HTTP/1.1 302 ",
        "HTTP/1.1 500",    "HTTP/1.1 204 No Content", "HTTP/1.1 304 Not Modified"};
    static constexpr const char* kOddLines[] = {"HTTP/1.1 101 Switching",
                                                "HTTP/1.1  200 OK",
                                                "HTTP/1.1 20 OK",
                                                "HTTP/1.1 2000 OK",
                                                "HTTP/2 200",
                                                "http/1.1 200 OK",
                                                "HTTP/1.1",
                                                "HTTP/1.1 2x0 OK",
                                                "ICY 200 OK",
                                                "garbage",
                                                "HTTP/1.1 099 Low",
                                                "HTTP/1.1 999 High",
                                                "HTTP/1.1 103 Hints",
                                                "HTTP/2.0 200 OK"};
    if (oneIn(16)) return "HTTP/1.1 100 Continue\r\n\r\n" + response(method);
    const std::string line = oneIn(32) ? choice(kOddLines) : choice(kLines);
    const bool bodyless = method == Method::kHead || line.find(" 204") != std::string::npos ||
                          line.find(" 304") != std::string::npos;
    return line + lineEnd() + fieldsAndBody(bodyless);
}

void Generator::damage(std::string& text) {
    switch (upTo(3)) {
        case 0:
            text[upTo(text.size())] = static_cast<char>(random_());
            break;
        case 1:
            text.erase(upTo(text.size()), upTo(4));
            break;
        default:
            text.insert(upTo(text.size()), 1, "\r\n\0 :,;0G\t"[upTo(10)]);
    }
}

}  // namespace

Conversation randomConversation(std::mt19937_64& random) {
    static constexpr Method kMethods[] = {Method::kHead, Method::kConnect};
    Generator generator(random);
    Conversation conversation;
    for (std::size_t n = generator.upTo(3) + 1; n > 0; --n) {
        const Method method =
            generator.oneIn(6) ? kMethods[generator.oneIn(4) ? 1 : 0] : Method::kOther;
        conversation.requests += generator.request();
        conversation.responses += generator.response(method);
        conversation.methods.push_back(method);
    }
    if (generator.oneIn(8)) generator.damage(conversation.requests);
    if (generator.oneIn(8)) generator.damage(conversation.responses);
    return conversation;
}

}  // namespace tolvane::fuzz
