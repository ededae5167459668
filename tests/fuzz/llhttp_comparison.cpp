// llhttp_comparison [CONVERSATIONS [SEED]]: compares the message readers with llhttp on
// random conversations that are split at random. Prints how often each explained
// difference occurred. The first unexplained difference ends the run with status 1.
#include <llhttp/llhttp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "conversations.h"

namespace tolvane::fuzz {
namespace {

std::mt19937_64 randomBits;

std::size_t upTo(std::size_t limit) {
    return randomBits() % limit;
}
bool rarely() {
    return upTo(16) == 0;
}
template <std::size_t N>
std::string choice(const char* const (&texts)[N]) {
    return texts[upTo(N)];
}

// ----------------------------------------------------------- conversations

std::string lineEnd() {
    return upTo(64) == 0 ? "\n" : "\r\n";
}

std::string chunks() {
    static constexpr const char* kExtensions[] = {"", "", "", ";e", ";e=v", " ;e=\"x\"", "x"};
    static constexpr const char* kTrailers[] = {"", "", "", "T: x\r\n", "A: b\r\nC: d\r\n"};
    std::string text;
    for (std::size_t n = upTo(4); n > 0; --n) {
        char size[20];
        const std::size_t length = upTo(40) + 1;
        std::snprintf(size, sizeof size, upTo(2) != 0 ? "%zx" : "%03zX", length);
        text += size + (rarely() ? choice(kExtensions) : "") + lineEnd();
        text += std::string(length, "G\r\nx:"[upTo(5)]) + lineEnd();
    }
    return text + "0" + lineEnd() + choice(kTrailers) + lineEnd();
}

// Fields, and the body that they announce.
std::string fieldsAndBody(bool bodyless) {
    static constexpr const char* kFields[] = {
        "Host: a.test", "host:b.test:80 ", "HOST:\t", "Hosts: c", "Accept: */*", "Cookie: a=b",
        "Connection: close", "X-Long: 0123456789012345678901234567890123456789", "T: x",
        "Content-Type: a", "TE: trailers", "Empty:", "Transfer-Encoding-X: chunked"};
    static constexpr const char* kOdd[] = {
        "Content-Length : 5", " folded", "\tfolded", "no colon", "Content-Length: 5, 5",
        "Content-Length: +5", "Content-Length: 99999999999999999999", "Content-Length:",
        "Transfer-Encoding: xchunked", "Transfer-Encoding: chunked, gzip", "Content-Length: 0x5",
        "Transfer-Encoding: gzip", "Transfer-Encoding: chunked", "Content-Length: 7", "a\x01 b: c",
        "Content-Length: 1 2", "Transfer-Encoding: \tchunked ,", "Host : x", ": x", "Upgrade: h2c"};
    std::string text;
    for (std::size_t n = upTo(5); n > 0; --n) text += choice(kFields) + lineEnd();
    if (upTo(24) == 0) text += choice(kOdd) + lineEnd();
    std::string body;
    switch (upTo(4)) {
        case 0:
            body = std::string(upTo(50), 'G');
            text += "Content-Length: " + std::to_string(body.size()) + lineEnd();
            break;
        case 1:
            body = chunks();
            text += "Transfer-Encoding: " + std::string(upTo(2) != 0 ? "" : "gzip, ") + "chunked" +
                    lineEnd();
            break;
        default:
            break;
    }
    if (upTo(24) == 0) text += choice(kOdd) + lineEnd();
    return text + lineEnd() + (bodyless ? "" : body);
}

std::string request() {
    static constexpr const char* kMethods[] = {"GET", "GET", "POST", "HEAD", "PUT", "PROPFIND",
                                               "DELETE", "OPTIONS", "PATCH"};
    static constexpr const char* kOddMethods[] = {"get", "BREW", "G@T", "", "CONNECT", " GET"};
    static constexpr const char* kTargets[] = {"/", "/x", "/a/b?c=d&e", "http://c.test/y",
                                               "https://u@d.test:444?q", "/%20"};
    static constexpr const char* kOddTargets[] = {"*", "x", "", "/a b", "/\x01", "/\x80", "a.test:1"};
    static constexpr const char* kVersions[] = {"HTTP/1.1", "HTTP/1.1", "HTTP/1.1", "HTTP/1.0"};
    static constexpr const char* kOddVersions[] = {"HTTP/2.0", "http/1.1", "HTTP/1.5", "",
                                                   "HTTP/1.1 ", "HTTP/1.", "HTTP/0.9"};
    std::string text = rarely() ? "\r\n" : "";
    text += upTo(32) == 0 ? choice(kOddMethods) : choice(kMethods);
    text += rarely() ? "  " : " ";
    text += upTo(32) == 0 ? choice(kOddTargets) : choice(kTargets);
    text += " ";
    text += upTo(32) == 0 ? choice(kOddVersions) : choice(kVersions);
    return text + lineEnd() + fieldsAndBody(false);
}

std::string response(Method method) {
    static constexpr const char* kLines[] = {
        "HTTP/1.1 200 OK", "HTTP/1.1 200 OK", "HTTP/1.0 404 Not Found", "HTTP/1.1 302 ",
        "HTTP/1.1 500", "HTTP/1.1 204 No Content", "HTTP/1.1 304 Not Modified"};
    static constexpr const char* kOddLines[] = {
        "HTTP/1.1 101 Switching", "HTTP/1.1  200 OK", "HTTP/1.1 20 OK", "HTTP/1.1 2000 OK",
        "HTTP/2 200", "http/1.1 200 OK", "HTTP/1.1", "HTTP/1.1 2x0 OK", "ICY 200 OK", "garbage"};
    if (rarely()) return "HTTP/1.1 100 Continue\r\n\r\n" + response(method);
    const std::string line = upTo(32) == 0 ? choice(kOddLines) : choice(kLines);
    const bool bodyless = method == Method::kHead || line.find(" 204") != std::string::npos ||
                          line.find(" 304") != std::string::npos;
    return line + lineEnd() + fieldsAndBody(bodyless);
}

void mutate(std::string& text) {
    if (upTo(8) != 0 || text.empty()) return;
    switch (upTo(3)) {
        case 0:
            text[upTo(text.size())] = static_cast<char>(randomBits());
            break;
        case 1:
            text.erase(upTo(text.size()), upTo(4));
            break;
        default:
            text.insert(upTo(text.size()), 1, "\r\n\0 :,;0G"[upTo(9)]);
    }
}

// ------------------------------------------------------------------ llhttp

struct Theirs {
    Reading reading;
    llhttp_errno_t error = HPE_OK;
    std::vector<Method> methods;  // of the requests that are answered
    std::string url;
    std::string host;
    std::string field;
    std::string value;
    bool hasHost = false;
    // What llhttp accepted although these readers do not.
    bool otherVersion = false;
    bool oddStatus = false;
};

Theirs& stateOf(llhttp_t* parser) {
    return *static_cast<Theirs*>(parser->data);
}

std::string lowerCased(std::string text) {
    for (char& c : text) c = lowerCase(c);
    return text;
}

int onMessageBegin(llhttp_t* parser) {
    Theirs& state = stateOf(parser);
    state.url.clear();
    state.host = "-";
    state.field.clear();
    state.value.clear();
    state.hasHost = false;
    return 0;
}
int onUrl(llhttp_t* parser, const char* text, std::size_t length) {
    stateOf(parser).url.append(text, length);
    return 0;
}
int onField(llhttp_t* parser, const char* text, std::size_t length) {
    stateOf(parser).field.append(text, length);
    return 0;
}
int onValue(llhttp_t* parser, const char* text, std::size_t length) {
    stateOf(parser).value.append(text, length);
    return 0;
}
int onValueComplete(llhttp_t* parser) {
    Theirs& state = stateOf(parser);
    if (lowerCased(state.field) == "host" && !state.hasHost) {
        state.hasHost = true;
        const auto end = std::ranges::find_if(
            state.value, [](char c) { return static_cast<unsigned char>(c) <= ' '; });
        if (end != state.value.begin()) state.host.assign(state.value.begin(), end);
    }
    state.field.clear();
    state.value.clear();
    return 0;
}
int onHeadersComplete(llhttp_t* parser) {
    Theirs& state = stateOf(parser);
    Reading& reading = state.reading;
    if (parser->http_major != 1) state.otherVersion = true;
    if (parser->type == HTTP_REQUEST) {
        reading.heads.push_back(state.url + " " + state.host);
        return 0;
    }
    const int status = parser->status_code;
    if (status < 100) state.oddStatus = true;
    if (status < 200 && status != 101) return 0;
    const std::size_t next = reading.complete;
    const Method method = next < state.methods.size() ? state.methods[next] : Method::kOther;
    reading.heads.push_back(std::to_string(status));
    if (status == 101 || (method == Method::kConnect && status / 100 == 2)) return 2;
    // It would read chunks behind a 204 or 304 that announces them.
    return method == Method::kHead || status == 204 || status == 304 ? 1 : 0;
}
int onMessageComplete(llhttp_t* parser) {
    const int status = parser->status_code;
    if (parser->type == HTTP_REQUEST || status >= 200 || status == 101) {
        ++stateOf(parser).reading.complete;
    }
    return 0;
}

Theirs readWithLlhttp(const Parts& parts, llhttp_type_t type, std::vector<Method> methods) {
    llhttp_settings_t settings;
    llhttp_settings_init(&settings);
    settings.on_message_begin = onMessageBegin;
    settings.on_url = onUrl;
    settings.on_header_field = onField;
    settings.on_header_value = onValue;
    settings.on_header_value_complete = onValueComplete;
    settings.on_headers_complete = onHeadersComplete;
    settings.on_message_complete = onMessageComplete;
    llhttp_t parser;
    llhttp_init(&parser, type, &settings);
    Theirs theirs;
    theirs.methods = std::move(methods);
    parser.data = &theirs;
    // Otherwise it reads nothing behind "Connection: close", which a server may.
    llhttp_set_lenient_keep_alive(&parser, 1);
    for (std::string_view part : parts) {
        while (!part.empty()) {
            theirs.error = llhttp_execute(&parser, part.data(), part.size());
            if (theirs.error != HPE_PAUSED_UPGRADE || type == HTTP_RESPONSE) break;
            part.remove_prefix(static_cast<std::size_t>(llhttp_get_error_pos(&parser) - part.data()));
            llhttp_resume_after_upgrade(&parser);
            theirs.error = HPE_OK;
        }
        if (theirs.error != HPE_OK) break;
    }
    theirs.reading.stopped = theirs.error != HPE_OK;
    return theirs;
}

// -------------------------------------------------------------- comparison

std::map<std::string, long> differences;

// Whether the messages that both have read are the same.
bool sameMessages(const Reading& ours, const Reading& theirs) {
    const std::size_t common = std::min(ours.heads.size(), theirs.heads.size());
    return std::equal(ours.heads.begin(), ours.heads.begin() + static_cast<std::ptrdiff_t>(common),
                      theirs.heads.begin());
}

std::string describe(const Reading& reading) {
    std::string text;
    for (const std::string& head : reading.heads) text += " [" + head + "]";
    return text + ", complete " + std::to_string(reading.complete) +
           (reading.stopped ? ", stopped" : "");
}

bool hasLoneReturn(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && text.substr(i + 1, 1) != "\n") return true;
    }
    return false;
}

// Names the difference; empty: there is none. "?": it has no explanation.
std::string differenceOf(std::string_view text, const Reading& ours, const Theirs& theirs) {
    const bool same = sameMessages(ours, theirs.reading);
    const bool equal = same && ours.heads.size() == theirs.reading.heads.size() &&
                       ours.complete == theirs.reading.complete;
    if (equal && ours.stopped == theirs.reading.stopped) return "";
    if (theirs.otherVersion) return "llhttp reads another version than HTTP/1.x";
    if (theirs.oddStatus) return "llhttp reads a status below 100";
    if (hasLoneReturn(text)) return "llhttp takes any byte behind a carriage return for a line feed";
    if (!same) return "?";
    if (theirs.reading.stopped && !ours.stopped) {
        return std::string("only llhttp stops: ") + llhttp_errno_name(theirs.error);
    }
    if (theirs.reading.stopped) {
        return std::string("both stop, at different places: ") + llhttp_errno_name(theirs.error);
    }
    return "?";
}

void compare(std::string_view text, llhttp_type_t type, const std::vector<Method>& methods) {
    const auto parts = cut(text, [](std::size_t left) { return upTo(left) + 1; });
    const Reading ours = type == HTTP_REQUEST ? readRequests(parts) : readResponses(parts, methods);
    const Theirs theirs = readWithLlhttp(parts, type, methods);
    const std::string difference = differenceOf(text, ours, theirs);
    if (difference.empty()) return;
    const long count = ++differences[difference];
    if (count > 3 && difference != "?") return;
    std::printf("--- %s\n%.*s\nthis reader:%s\nllhttp:%s (%s)\n", difference.c_str(),
                static_cast<int>(text.size()), text.data(), describe(ours).c_str(),
                describe(theirs.reading).c_str(), llhttp_errno_name(theirs.error));
    if (difference == "?") std::exit(1);
}

void converse() {
    std::string requests;
    std::string responses;
    std::vector<Method> methods;
    for (std::size_t n = upTo(3) + 1; n > 0; --n) {
        requests += request();
        methods.push_back(upTo(8) == 0 ? Method::kHead : Method::kOther);
        responses += response(methods.back());
    }
    mutate(requests);
    mutate(responses);
    compare(requests, HTTP_REQUEST, methods);
    compare(responses, HTTP_RESPONSE, methods);
}

}  // namespace
}  // namespace tolvane::fuzz

int main(int count, char** arguments) {
    using namespace tolvane::fuzz;
    const long conversations = count > 1 ? std::atol(arguments[1]) : 1'000'000;
    randomBits.seed(count > 2 ? std::strtoull(arguments[2], nullptr, 10) : 1);
    for (long i = 0; i < conversations; ++i) converse();
    std::printf("%ld conversations\n", conversations);
    for (const auto& [what, times] : differences) std::printf("%10ld  %s\n", times, what.c_str());
}
