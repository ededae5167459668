// What is counted for the calls that a server makes on its connections.
#include "shim_utils/accounting.h"

#include <gtest/gtest.h>

#include <climits>
#include <sstream>

#include "fake_clock.h"
#include "measured_process.h"
#include "shim_utils/transfer.h"
#include "tolvane/entry_points.h"

namespace tolvane::test {
namespace {

constexpr int kFd = 9;

Bytes bytesOf(const std::string& text) {
    return {text.data(), text.size()};
}

// One call of a server on its connection, or of an outside reporter:
//   accept KIND, close     KIND: 0 untracked, 1 SSL, 2 plain
//   get HOST/URL           a read of 100 bytes that begin with this request
//   in N, out N            a read or write that returned N, its bytes out of sight
//   put TEXT               a write of 1000 bytes that begin with this text
//   report HOST, status N  a request for the host's /shop/x.jsp, a response
void perform(const std::string& call) {
    std::istringstream words(call);
    std::string verb;
    std::string text;
    words >> verb;
    std::getline(words >> std::ws, text, '\0');
    const int number = std::atoi(text.c_str());
    const int slot = GETINDEX(webServerType, kFd);
    if (verb == "accept") countAccepted(kFd, static_cast<SocketKind>(number));
    if (verb == "close") countClosed(kFd);
    if (verb == "get") {
        const std::size_t url = text.find('/');
        text = "GET " + text.substr(url) + " HTTP/1.1\r\nHost: " + text.substr(0, url) + "\r\n\r\n";
        received(kFd, 100, bytesOf(text));
    }
    if (verb == "in") received(kFd, number, {});
    if (verb == "out") sent(kFd, number, {});
    if (verb == "put") sent(kFd, 1000, bytesOf(text += "\r\n\r\n"));
    if (verb == "report") {
        const int length = static_cast<int>(text.size());
        updateRequestResults(slot, text.data(), length, "/shop/x.jsp?", 11, kFd);
    }
    if (verb == "status") updateResponseResults(slot, number, 0);
}

void performAll(const char* calls) {
    std::istringstream each(calls);
    for (std::string call; std::getline(each, call, ';');) perform(call);
}

// Site 0 is a.test with categories "/shop*" and "*.jsp", site 1 b.test without
// any. A quarter of a second passes between two readings of the clock.
const struct {
    const char* calls;
    const char* counted;
} kSequences[] = {
    {"accept 2; get a.test/shop/x.jsp",
     "total: conn1 req1 in100 open1 | 0: conn1 req1 in100 open1 | 0.0: req1 busy1 | 0.1: req1 "
     "busy1"},
    {"accept 2; get a.test/shop/x.jsp; put HTTP/1.1 200; close",
     "total: conn1 req1 in100 out1000 | 0: conn1 req1 in100 out1000 | 0.0: req1 out1000 time0.25"
     " | 0.1: req1 out1000 time0.25"},
    {"accept 2; get a.test/shop; put HTTP/1.1 200; get a.test/x.jsp; put HTTP/1.1 200; close",
     "total: conn1 req2 in200 out2000 | 0: conn1 req2 in200 out2000 | 0.0: req1 out1000 time0.25"
     " | 0.1: req1 out1000 time0.25"},
    {"accept 2; get a.test/x; put HTTP/1.1 200; get b.test/; put HTTP/1.1 200; close",
     "total: conn1 req2 in200 out2000 | 0: conn1 req1 in100 out1000 open1 | 1: req1 in100 out1000 "
     "open-1"},
    // Dropped: closed with no response since the last read.
    {"accept 2; get a.test/x.jsp; close",
     "total: conn1 req1 in100 drop1 | 0: conn1 req1 in100 drop1 | 0.1: req1 drop1"},
    {"accept 2; close", "total: conn1 drop1 | 0: open-1 drop1"},
    {"accept 2; get a.test/x; put HTTP/1.1 200; close; accept 2; close",
     "total: conn2 req1 in100 out1000 | 0: conn1 req1 in100 out1000 open-1"},
    // Status classes.
    {"accept 2; get a.test/x.jsp; put HTTP/1.0 404 Not Found; close",
     "total: conn1 req1 in100 out1000 err1 cerr1 | 0: conn1 req1 in100 out1000 err1 cerr1"
     " | 0.1: req1 out1000 err1"},
    {"accept 2; get a.test/x.jsp; put HTTP/1.1 200\r\nTv-Status: 503; close",
     "total: conn1 req1 in100 out1000 err1 serr1 | 0: conn1 req1 in100 out1000 err1 serr1"
     " | 0.1: req1 out1000 err1"},
    {"accept 2; get b.test/; put HTTP/1.1 200\r\nTv-Status: x; close",
     "total: conn1 req1 in100 out1000 | 1: conn1 req1 in100 out1000"},
    {"accept 2; get a.test/x.jsp; put HTTP/1.1 302; close",
     "total: conn1 req1 in100 out1000 redir1 | 0: conn1 req1 in100 out1000 redir1"
     " | 0.1: req1 out1000 time0.25"},
    {"accept 2; get a.test/x.jsp; put hTTp/1.1 abc; get a.test/x.jsp; put HTTP/1.1 600; close",
     "total: conn1 req2 in200 out2000 | 0: conn1 req2 in200 out2000 | 0.1: req2 out2000 time0.25"},
    // Only a response's first bytes are looked at, and must be a status line.
    {"accept 2; get a.test/x.jsp; put HTtP/1.1 404; put HTTP/1.1 404; close",
     "total: conn1 req1 in100 out2000 | 0: conn1 req1 in100 out2000 | 0.1: req1 out2000 busy1"},
    {"accept 2; get a.test/x.jsp; put HTTP/1.1 200; put HTTP/1.1 404; out 7; close",
     "total: conn1 req1 in100 out2007 | 0: conn1 req1 in100 out2007 | 0.1: req1 out2007 time0.25"},
    {"accept 2; get a.test/x.jsp; out 7; put HTTP/1.1 404; close",
     "total: conn1 req1 in100 out1007 | 0: conn1 req1 in100 out1007 | 0.1: req1 out1007 busy1"},
    // A request in two reads; and bytes out of sight, which belong to no site.
    {"accept 2; get a.test/x; get b.test/; in 11; close",
     "total: conn1 req1 in211 drop1 | 0: conn1 req1 in211 drop1"},
    {"accept 2; get a.test/x.jsp; put HTTP/1.1 200; in 50; put HTTP/1.1 200; close",
     "total: conn1 req2 in150 out2000 | 0: conn1 req1 in100 out2000 | 0.1: req1 out2000 time0.75"},
    {"accept 2; in 0; in -1; in 50; in 7", "total: conn1 req1 in57 open1 | 0: in7"},
    // Failed and empty writes.
    {"accept 2; get a.test/x.jsp; out -1; put HTTP/1.1 404; close",
     "total: conn1 req1 in100 out1000 err1 cerr1 | 0: conn1 req1 in100 out1000 err1 cerr1"
     " | 0.1: req1 out1000 err1"},
    {"accept 2; get b.test/; out -1; get b.test/; out -1; close",
     "total: conn1 req2 in200 drop1 | 1: conn1 req2 in200 drop1"},
    {"accept 2; get a.test/x.jsp; out 0; close",
     "total: conn1 req1 in100 | 0: conn1 req1 in100 | 0.1: req1 busy1"},
    {"accept 2; get c.test/; put HTTP/1.1 503; get c.test/; close",
     "total: conn1 req2 in200 out1000 err1 serr1 drop1"},
    // SSL: bytes only, but for what is reported. Untracked: nothing but the accept.
    {"accept 1; get a.test/x; put HTTP/1.1 404", "total: conn1 in100 out1000 open1 | 0: out1000"},
    {"accept 1; in 300; in 5; report a.test:443; out 7; status 302; close",
     "total: conn1 req1 in305 out7 redir1 drop1 | 0: conn1 req1 in305 out7 redir1 drop1"
     " | 0.0: req1 out7 drop1 time0.25 | 0.1: req1 out7 drop1 time0.25"},
    {"accept 1; in 300; report a.test:80; status 404; in 20; report b.test",
     "total: conn1 req2 in320 open1 err1 cerr1 | 1: conn1 req1 in20 open1"},
    {"accept 0; get a.test/x; put HTTP/1.1 200; close", "total: conn1 open1"},
    {"get a.test/x; put HTTP/1.1 200; close", ""},
};

class Accounting : public testing::TestWithParam<ServerType> {};

TEST_P(Accounting, CountsSequencesOfCalls) {
    for (const auto& sequence : kSequences) {
        SCOPED_TRACE(sequence.calls);
        const MeasuredProcess process(GetParam());
        requestInterval = INT_MAX;
        putIntoForce({{"a.test", {"/shop*", "*.jsp"}}, {"b.test", {}}});
        fakeClock() = {};
        performAll(sequence.calls);
        EXPECT_EQ(describe(slotAt(0).result), sequence.counted);
    }
}
INSTANTIATE_TEST_SUITE_P(Types, Accounting,
                         testing::Values(kApacheProcesses, kNetscape, kApacheThreads));

TEST(AccountingBounds, IgnoresWhatIsOutsideTheTables) {
    const MeasuredProcess process(kNetscape, 16);
    for (const int number : {-1, 75, INT_MIN, INT_MAX}) {
        countAccepted(number, kPlain);
        EXPECT_EQ(received(number, 100, {}), 100);
        EXPECT_EQ(sent(number, 100, {}), 100);
        countClosed(number);
        EXPECT_EQ(GETINDEX(kNetscape, number), -1);
        updateRequestResults(0, "a", 1, "/", 1, number);
        updateRequestResults(number, "a", 1, "/", 1, kFd);
        updateResponseResults(number, 404, 0);
    }
    EXPECT_EQ(describe(slotAt(0).result), "");
}

TEST(ResponseTime, IsTheDifferenceOfTwoTimesOfDay) {
    const std::vector<std::string> logged = {"Response Time < 0"};
    LogTail log;
    EXPECT_DOUBLE_EQ(diffTime(10, 900'000, 11, 100'000), 0.2);
    EXPECT_DOUBLE_EQ(diffTime(10, 0, 70, 250'000), 60.25);
    EXPECT_EQ(diffTime(10, 5, 10, 5), 0.0);
    EXPECT_EQ(diffTime(INT_MAX, 0, INT_MIN, 0), 1.0);  // the second at which 32 bits wrap
    EXPECT_TRUE(log.next().empty());
    EXPECT_EQ(diffTime(10, 1, 10, 0), 0.0);
    EXPECT_EQ(log.next(), logged);
    EXPECT_EQ(diffTime(11, 0, 10, 999'999), 0.0);
    EXPECT_EQ(log.next(), logged);

    // It is taken before the text is looked at, so even when that is no response.
    const MeasuredProcess process(kNetscape);
    putIntoForce({{"a.test", {"/x"}}});
    performAll("accept 2; get a.test/x");
    fakeClock().step = -1'000'000;
    perform("put no status line");
    EXPECT_EQ(log.next(), logged);
    EXPECT_EQ(describe(slotAt(0).result),
              "total: conn1 req1 in100 out1000 open1 | 0: conn1 req1 in100 out1000 open1"
              " | 0.0: req1 out1000 busy1");
}

}  // namespace
}  // namespace tolvane::test
