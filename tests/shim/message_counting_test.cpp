// What is counted for the HTTP messages of a connection. Each conversation is played
// as it stands, byte by byte, and in parts of random lengths: the counts are the same.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "measured_process.h"
#include "shim_utils/accounting/counting.h"
#include "shim_utils/publication/publication.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane::test {
namespace {

constexpr int kFd = 9;

// "<" is received, ">" sent, "f" sent without its bytes (a number of them); "x" closes.
struct Conversation {
    const char* name;
    std::vector<std::string> steps;
    const char* counted;
};

const std::string kGet = "<GET /x HTTP/1.1\r\nHost: a.test\r\n\r\n";         // 33 bytes
const std::string kOk = ">HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";   // 40 bytes
const std::string kEmpty = ">HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n";  // 38 bytes
const std::string kNoContent = ">HTTP/1.1 204 No\r\n\r\n";                   // 19 bytes
const std::string kMegabyte(1 << 20, 'm');

std::string operator*(int n, const std::string& step) {
    std::string all = step.substr(0, 1);
    for (int i = 0; i < n; ++i) all += step.substr(1);
    return all;
}

std::string get(const std::string& target, const std::string& fields) {
    return "<GET " + target + " HTTP/1.1\r\n" + fields + "\r\n";
}
std::string post(const std::string& fields, const std::string& body) {
    return "<POST /x HTTP/1.1\r\nHost: a.test\r\n" + fields + "\r\n" + body;
}
std::string ok(const std::string& fields, const std::string& body) {
    return ">HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}

const std::vector<Conversation> kConversations = {
    {"one exchange",
     {kGet, kOk, "x"},
     "total: conn1 req1 in33 out40 | 0: conn1 req1 in33 out40 | 0.0: req1 out40 time1"},
    {"three pipelined requests and one write",
     {3 * kGet, 3 * kOk, "x"},
     "total: conn1 req3 in99 out120 | 0: conn1 req3 in99 out120 | 0.0: req3 out120 time1"},
    {"empty lines between requests belong to no site",
     {"<\r\n\r\n", kGet, kOk, "<\r\n", kGet, "x"},
     "total: conn1 req2 in72 out40 drop1 | 0: conn1 req2 in66 out40 drop1"
     " | 0.0: req2 out40 drop1 time1"},
    {"names in any case, any method",
     {"<PROPFIND /x HTTP/1.1\r\nhOST:\ta.test \r\n\r\n", kEmpty, "x"},
     "total: conn1 req1 in39 out38 err1 cerr1 | 0: conn1 req1 in39 out38 err1 cerr1"
     " | 0.0: req1 out38 err1"},
    {"the authority of an absolute target is the host",
     {get("http://user@a.test/x", "Host: b.test\r\n"), kNoContent, get("http://b.test", ""),
      kNoContent},
     "total: conn1 req2 in81 out38 open1 | 0: conn1 req1 in51 out19 open1"
     " | 0.0: req1 out19 time1 | 1: req1 in30 out19"},
    {"an interim response is bytes only",
     {post("Content-Length: 3\r\n", ""), ">HTTP/1.1 100 Continue\r\n\r\n", "<abc", kEmpty, "x"},
     "total: conn1 req1 in56 out63 err1 cerr1 | 0: conn1 req1 in56 out63 err1 cerr1"
     " | 0.0: req1 out63 err1"},
    {"a body never begins a request",
     {post("Content-Length: 33\r\n", kGet.substr(1)), kNoContent, kGet, kNoContent, "x"},
     "total: conn1 req2 in120 out38 | 0: conn1 req2 in120 out38 | 0.0: req2 out38 time1"},
    {"a chunked request",
     {post("Transfer-Encoding: gzip, Chunked\r\n",
           "21;ext=\"x\"\r\n" + kGet.substr(1) + "\r\n0\r\nTrailer: x\r\n\r\n") +
          kGet.substr(1),
      2 * kNoContent, "x"},
     "total: conn1 req2 in165 out38 | 0: conn1 req2 in165 out38 | 0.0: req2 out38 time1"},
    {"lines of a megabyte in a head, a chunk's size and a trailer",
     {post("Transfer-Encoding: chunked\r\nX: " + kMegabyte + "\r\n",
           "1;" + kMegabyte + "\r\na\r\n0\r\nX: " + kMegabyte + "\r\n\r\n") +
          kGet.substr(1),
      2 * kNoContent, "x"},
     "total: conn1 req2 in3145845 out38 | 0: conn1 req2 in3145845 out38 | 0.0: req2 out38 time1"},
    {"responses to HEAD and of 304 have no body",
     {"<HEAD /x HTTP/1.1\r\nHost: a.test\r\n\r\n" + kGet.substr(1),
      ok("Content-Length: 100\r\n", "") + "HTTP/1.1 304 Not\r\nContent-Length: 9\r\n\r\n", kGet,
      kOk, "x"},
     "total: conn1 req3 in100 out119 redir1 | 0: conn1 req3 in100 out119 redir1"
     " | 0.0: req3 out119 time1"},
    {"a chunked response, and the next",
     {2 * kGet,
      ok("transfer-encoding: chunked\r\n", "3\r\nabc\r\n0\r\n\r\n") + kNoContent.substr(1), "x"},
     "total: conn1 req2 in66 out79 | 0: conn1 req2 in66 out79 | 0.0: req2 out79 time1"},
    {"a body that ends with the connection",
     {kGet, ok("", "anything"), ">HTTP/1.1 500\r\n\r\n", "x"},
     "total: conn1 req1 in33 out43 | 0: conn1 req1 in33 out43 | 0.0: req1 out43 time1"},
    {"a body that the process does not see",
     {kGet, ok("Content-Length: 50\r\n", ""), "f50", kGet, kOk, "x"},
     "total: conn1 req2 in66 out129 | 0: conn1 req2 in66 out129 | 0.0: req2 out129 time1"},
    {"another protocol after 101",
     {kGet, ">HTTP/1.1 101 Switching\r\n\r\n", kGet, kOk, "x"},
     "total: conn1 req1 in66 out66 | 0: conn1 req1 in33 out26 | 0.0: req1 out26 time1"},
    {"a tunnel after CONNECT",
     {"<CONNECT a.test:443 HTTP/1.1\r\nHost: a.test\r\n\r\n", ok("", ""), kGet, "x"},
     "total: conn1 req1 in78 out19 | 0: conn1 req1 in45 out19"},
    {"CONNECT refused",
     {"<CONNECT a.test:443 HTTP/1.1\r\nHost: a.test\r\n\r\n", kEmpty, kGet, kOk, "x"},
     "total: conn1 req2 in78 out78 err1 cerr1 | 0: conn1 req2 in78 out78 err1 cerr1"
     " | 0.0: req1 out40 time1"},
    {"no HTTP at all",
     {"<\x16\x03\x01\x02", ">HTTP/1.1 400 Bad\r\n\r\n", "x"},
     "total: conn1 in4 out20"},
    {"HTTP/2 and HTTP/0.9 are not read",
     {"<PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", "x"},
     "total: conn1 in24"},
    {"no request, no drop", {"x"}, "total: conn1"},
    {"two requests without a response",
     {kGet, kGet, "x"},
     "total: conn1 req2 in66 drop2 | 0: conn1 req2 in66 drop2 | 0.0: req2 drop2"},
    {"a response that has begun is no drop",
     {kGet, ok("Content-Length: 9\r\n", "a"), "x"},
     "total: conn1 req1 in33 out39 | 0: conn1 req1 in33 out39 | 0.0: req1 out39 time1"},
    {"nor is the head of a final one",
     {kGet, ">HTTP/1.1 500 No\r\nServer", "x"},
     "total: conn1 req1 in33 out23 err1 serr1 | 0: conn1 req1 in33 out23 err1 serr1"
     " | 0.0: req1 out23 err1"},
    {"an interim response alone is a drop",
     {kGet, ">HTTP/1.1 100 Continue\r\n\r\n", "x"},
     "total: conn1 req1 in33 out25 drop1 | 0: conn1 req1 in33 out25 drop1"
     " | 0.0: req1 out25 drop1"},
    {"a head that never ends is a request once its line is complete",
     {"<GET /x HTTP/1.1\r\nHost: a.test\r\nX", "x"},
     "total: conn1 req1 in32 drop1 | 0: conn1 req1 in32 drop1 | 0.0: req1 drop1"},
    {"half a request line is not", {"<GET /x HTT", "x"}, "total: conn1 in10"},
    {"a response before the head is complete",
     {"<GET /x HTTP/1.1\r\nHost: a.test\r\nX", kEmpty, "x"},
     "total: conn1 req1 in32 out38 err1 cerr1 | 0: conn1 req1 in32 out38 err1 cerr1"
     " | 0.0: req1 out38 err1"},
    {"a response without a request", {">HTTP/1.1 408 Late\r\n\r\n", "x"}, "total: conn1 out21"},
    {"a contradictory length is a request, and what follows is not read",
     {post("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n") + kGet.substr(1),
      kEmpty, kGet, "x"},
     "total: conn1 req1 in152 out38 err1 cerr1 | 0: conn1 req1 in81 out38 err1 cerr1"
     " | 0.0: req1 out38 err1"},
    {"nor is what follows a carriage return within a length",
     {post("Content-Length: 3\r5\r\n", "abc"), kEmpty, kGet, "x"},
     "total: conn1 req1 in91 out38 err1 cerr1 | 0: conn1 req1 in55 out38 err1 cerr1"
     " | 0.0: req1 out38 err1"},
    {"a response that cannot be framed ends the reading of requests, too",
     {kGet, ok("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n"), kGet, kOk, "x"},
     "total: conn1 req1 in66 out111 | 0: conn1 req1 in33 out66 | 0.0: req1 out66 time1"},
};

// ------------------------------------------------------------------- HTTP/2

std::string frame(char type, char flags, char stream, const std::string& content) {
    const auto length = static_cast<char>(content.size());
    return std::string{0, 0, length, type, flags, 0, 0, 0, stream} + content;
}
constexpr char kEndStream = 1;
constexpr char kEndHeaders = 4;
const std::string kSettings = frame(4, 0, 0, "");
const std::string kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + kSettings;

// GET of /x on a.test: 23 bytes. The header block is not compressed.
std::string getStream(char stream, char flags = kEndHeaders | kEndStream) {
    return frame(1, flags, stream,
                 "\x82\x86\x04\x02/x\x01\x06"
                 "a.test");
}
const std::string k100 = std::string("\x08\x03") + "100";
const std::string k200 = "\x88";
const std::string k404 = "\x8d";
std::string respond(char stream, const std::string& fields, char flags = kEndHeaders) {
    return frame(1, flags, stream, fields);
}
std::string data(char stream, const std::string& bytes, char flags = 0) {
    return frame(0, flags, stream, bytes);
}
std::string resetStream(char stream) {
    return frame(3, 0, stream, std::string(4, '\0'));
}
const std::string kUpgrade =
    get("/x", "Host: a.test\r\nUpgrade: h2c\r\nConnection: Upgrade\r\n");          // 68 bytes
const std::string kSwitching = ">HTTP/1.1 101 Switching\r\nUpgrade: H2C\r\n\r\n";  // 40 bytes

const std::vector<Conversation> kStreams = {
    {"interleaved streams",
     {"<" + kPreface + getStream(1) + getStream(3), ">" + kSettings + respond(3, k404, 5),
      ">" + respond(1, k200) + data(1, "abc", kEndStream), "x"},
     "total: conn1 req2 in79 out41 err1 cerr1 | 0: conn1 req2 in46 out32 err1 cerr1"
     " | 0.0: req2 out32 err1 time1"},
    {"a body, an interim response and trailers",
     {"<" + kPreface + getStream(1, kEndHeaders), ">" + kSettings + respond(1, k100),
      "<" + data(1, "body") + getStream(1), ">" + respond(1, k200) + data(1, "a"),
      ">" + respond(1, k404, 5), "x"},
     "total: conn1 req1 in92 out53 | 0: conn1 req1 in59 out44 | 0.0: req1 out44 time1"},
    {"streams that either side resets before their response are drops",
     {"<" + kPreface + getStream(1) + getStream(3) + getStream(5) + resetStream(1),
      ">" + kSettings + resetStream(3) + respond(5, k200), "<" + resetStream(5), "x"},
     "total: conn1 req3 in128 out32 drop2 | 0: conn1 req3 in69 out10 drop2"
     " | 0.0: req3 out10 drop2 time1"},
    {"a stream without a response at the close is a drop",
     {"<" + kPreface + getStream(1), "x"},
     "total: conn1 req1 in56 drop1 | 0: conn1 req1 in23 drop1 | 0.0: req1 drop1"},
    {"what cannot be decoded is opaque, and drops nothing",
     {"<" + kPreface + getStream(1) + respond(3, std::string("\xff\xff\xff\xff\xff\xff", 6)),
      ">" + respond(1, k200), "x"},
     "total: conn1 req1 in71 out10 | 0: conn1 req1 in23 | 0.0: req1"},
    {"an upgrade to HTTP/2 is a single request",
     {kUpgrade, kSwitching, ">" + kSettings, "<" + kPreface + getStream(3),
      ">" + respond(1, k200, 5) + respond(3, k404, 5), "x"},
     "total: conn1 req2 in124 out69 err1 cerr1 | 0: conn1 req2 in91 out60 err1 cerr1"
     " | 0.0: req2 out60 err1 time1"},
    {"an upgrade to another protocol is answered by 101",
     {kUpgrade, kSwitching, ">\x81\x01x", "<\x81\x81keyX", "x"},
     "total: conn1 req1 in74 out43 | 0: conn1 req1 in68 out40 | 0.0: req1 out40 time1"},
    {"the settings of a server may come before the preface",
     {">" + kSettings, "<" + kPreface + getStream(1), ">" + respond(1, k200, 5), "x"},
     "total: conn1 req1 in56 out19 | 0: conn1 req1 in23 out10 | 0.0: req1 out10 time1"},
    {"a stream that ends without a final response is a drop",
     {"<" + kPreface + getStream(1, kEndHeaders), ">" + kSettings + respond(1, k100, 5), "x"},
     "total: conn1 req1 in56 out23 drop1 | 0: conn1 req1 in23 out14 drop1"
     " | 0.0: req1 out14 drop1"},
};

class MessageCounting : public testing::TestWithParam<ServerType> {
  protected:
    void SetUp() override { countsMessages = true; }
    void TearDown() override { countsMessages = false; }
};
INSTANTIATE_TEST_SUITE_P(Types, MessageCounting,
                         testing::Values(kApacheProcesses, kNetscape, kApacheThreads));

using Split = std::size_t(std::size_t left);

// How the steps reach the counting: by the calls of a plain connection, or as the
// plaintext of an SSL connection.
struct Way {
    SocketKind kind;
    const char* name;
};
constexpr Way kWays[] = {{kPlain, "plain"}, {kSsl, "SSL"}};
constexpr int kTlsObject = 0;

void transferPlaintext(const std::string& step, const std::string& part) {
    const Connection connection = {descriptors[kFd], slotAt(GETINDEX(webServerType, kFd))};
    received(kFd, 1, "w", 1);
    ASSERT_TRUE(readPlaintextOf(connection, &kTlsObject));
    if (step[0] == '<') plaintextReceived(connection, {part.data(), part.size()});
    if (step[0] == '>') plaintextSent(connection, {part.data(), part.size()});
}

void transfer(const std::string& step, SocketKind kind, const std::function<Split>& split) {
    if (step[0] == 'f') {
        const int n = std::stoi(step.substr(1));
        if (kind == kPlain) sent(kFd, n, Buffers{});
        const Connection connection = {descriptors[kFd], slotAt(GETINDEX(webServerType, kFd))};
        if (kind == kSsl) unseenPlaintextSent(connection, static_cast<std::uint64_t>(n));
        return;
    }
    for (std::size_t at = 1; at < step.size();) {
        const std::size_t n = split(step.size() - at);
        const std::string part = step.substr(at, n);  // a copy, so that no reader goes beyond it
        const auto count = static_cast<ssize_t>(n);
        if (kind == kSsl) transferPlaintext(step, part);
        if (kind == kPlain && step[0] == '<') received(kFd, count, part.data(), n);
        if (kind == kPlain && step[0] == '>') sent(kFd, count, part.data(), n);
        at += n;
    }
}

// The counts; of an SSL connection without the bytes of the totals, which are those of
// the wire.
std::string counted(const Conversation& conversation, ServerType type, SocketKind kind,
                    const std::function<Split>& split) {
    const MeasuredProcess process(type);
    requestInterval = INT_MAX;
    putIntoForce({{"a.test", {"/x"}}, {"b.test", {}}});
    countAccepted(kFd, kind);
    for (const std::string& step : conversation.steps) {
        if (step == "x") {
            countClosed(kFd);
        } else {
            transfer(step, kind, split);
        }
    }
    ResultStruct& result = slotAt(0).result;
    for (auto& site : result.category) {
        for (CategoryCounters& category : site) {
            if (category.responseTimeSum > 0) category.responseTimeSum = 1;
        }
    }
    if (kind == kSsl) result.total.bytesReceived = result.total.bytesSent = 0;
    return describe(result);
}

std::string withoutWire(std::string counts) {
    for (const char* bytes : {" in", " out"}) {
        const std::size_t at = counts.find(bytes);
        if (at < counts.find(" |")) counts.erase(at, counts.find_first_of(" ", at + 1) - at);
    }
    return counts;
}

TEST_P(MessageCounting, IsTheSameHoweverAConversationIsSplit) {
    std::mt19937 random(1);
    std::vector<Conversation> all = kConversations;
    all.insert(all.end(), kStreams.begin(), kStreams.end());
    for (const Way& way : kWays) {
        for (const Conversation& conversation : all) {
            const auto name = std::string(conversation.name) + ", " + way.name;
            const std::string expected =
                way.kind == kPlain ? conversation.counted : withoutWire(conversation.counted);
            const auto play = [&](const std::function<Split>& split) {
                return counted(conversation, GetParam(), way.kind, split);
            };
            EXPECT_EQ(play([](std::size_t left) { return left; }), expected) << name;
            EXPECT_EQ(play([](std::size_t) { return 1; }), expected) << name;
            for (int i = 0; i < 10; ++i) {
                EXPECT_EQ(play([&](std::size_t left) { return random() % left + 1; }), expected)
                    << name;
            }
        }
    }
}

// A worker's end closes its connections without a call.
TEST_P(MessageCounting, DropsAtExitWhatIsUnanswered) {
    if (GetParam() == kNetscape) return;  // publishes nothing at its end
    const MeasuredProcess process(GetParam());
    requestInterval = INT_MAX;
    putIntoForce({{"a.test", {"/x"}}});
    countAccepted(kFd, kPlain);
    const auto whole = [](std::size_t left) { return left; };
    transfer(3 * kGet, kPlain, whole);
    transfer(kNoContent, kPlain, whole);
    for (int i = 0; i < 2; ++i) {  // only once
        GetParam() == kApacheProcesses ? publishAtExit() : publishSlotsAtExit();
        shmPtr[0].category[0][0].responseTimeSum = 0;
        shmPtr[0].site[0].openConnections = 0;
        EXPECT_EQ(describe(shmPtr[0]),
                  "total: conn1 req3 in99 out19 drop2 | 0: conn1 req3 in99 out19 drop2"
                  " | 0.0: req3 out19 drop2");
    }
}

}  // namespace
}  // namespace tolvane::test
