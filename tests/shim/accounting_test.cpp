// What is counted for the calls that a server makes on its connections.
#include "shim_utils/accounting/accounting.h"

#include <gtest/gtest.h>

#include <climits>

#include "fake_clock.h"
#include "measured_process.h"
#include "tolvane/entry_points.h"
#include "transfer.h"

namespace tolvane::test {
namespace {

constexpr int kFd = 9;

// A read of 100 bytes that begin with this request.
void get(const std::string& host, const std::string& url) {
    const std::string text = "GET " + url + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
    received(kFd, 100, text.data(), text.size());
}

// A write of 1000 bytes that begin with this text.
void put(const std::string& text) {
    sent(kFd, 1000, text.data(), text.size());
}

void expectCounted(const char* counted) {
    EXPECT_EQ(describe(slotAt(0).result), counted);
}

class Accounting : public testing::TestWithParam<ServerType> {};
INSTANTIATE_TEST_SUITE_P(Types, Accounting,
                         testing::Values(kApacheProcesses, kNetscape, kApacheThreads));

// Gauges and exact times are visible only inside the process. A quarter of a
// second passes between two readings of the clock.
TEST_P(Accounting, KeepsGaugesAndTimes) {
    const MeasuredProcess process(GetParam());
    requestInterval = INT_MAX;
    fakeClock() = {};
    putIntoForce({{"a.test", {"/shop*", "*.jsp"}}, {"b.test", {}}});
    countAccepted(kFd, kPlain);
    get("a.test", "/shop/x.jsp");
    expectCounted(
        "total: conn1 req1 in100 open1 | 0: conn1 req1 in100 open1"
        " | 0.0: req1 busy1 | 0.1: req1 busy1");
    put("HTTP/1.1 302");
    get("a.test", "/x.jsp");
    put("hTTp/1.1 abc");
    put("HTTP/1.1 404");  // not a response's first bytes
    expectCounted(
        "total: conn1 req2 in200 out3000 redir1 open1 | 0: conn1 req2 in200 out3000 redir1 open1"
        " | 0.0: req1 out1000 time0.25 | 0.1: req2 out3000 time0.5");
    // A request out of sight belongs to no site; its response does.
    received(kFd, 50, Buffers{});
    put("HTTP/1.1 200");
    get("a.test", "/x.jsp");
    sent(kFd, -1, Buffers{});
    sent(kFd, 7, Buffers{});
    put("HTTP/1.1 200");  // neither is this
    get("b.test", "/");
    expectCounted(
        "total: conn1 req5 in450 out5007 redir1 open1 | 0: conn1 req3 in300 out5007 redir1 open1"
        " | 0.0: req1 out1000 time0.25 | 0.1: req3 out5007 busy1 time1 | 1: req1 in100");
}

TEST_P(Accounting, DropsWhatIsClosedWithNoResponseSinceTheLastRead) {
    const MeasuredProcess process(GetParam());
    requestInterval = INT_MAX;
    putIntoForce({{"a.test", {"/x"}}, {"b.test", {}}});
    countAccepted(kFd, kPlain);
    get("a.test", "/x");
    sent(kFd, -1, Buffers{});
    countClosed(kFd);
    countAccepted(kFd, kPlain);
    get("b.test", "/");
    sent(kFd, -1, Buffers{});
    get("a.test", "/x");
    sent(kFd, 0, Buffers{});
    countClosed(kFd);
    expectCounted(
        "total: conn2 req3 in300 drop1 | 0: conn1 req2 in200 drop1 open-1"
        " | 0.0: req2 drop1 busy1 | 1: conn1 req1 in100 open1");
    countAccepted(kFd, kPlain);
    countClosed(kFd);
    countAccepted(kFd, kUntracked);
    get("a.test", "/x");
    countClosed(kFd);
    // An untracked connection leaves nothing but the accept.
    expectCounted(
        "total: conn4 req3 in300 drop1 open1 | 0: conn1 req2 in200 drop1 open-2"
        " | 0.0: req2 drop1 busy1 | 1: conn1 req1 in100 open1");
}

TEST(AccountingBounds, IgnoresWhatIsOutsideTheTables) {
    const MeasuredProcess process(kNetscape, 16);
    for (const int number : {-1, 75, INT_MIN, INT_MAX}) {
        countAccepted(number, kPlain);
        EXPECT_EQ(received(number, 100, Buffers{}), 100);
        EXPECT_EQ(sent(number, 100, Buffers{}), 100);
        countClosed(number);
        EXPECT_EQ(GETINDEX(kNetscape, number), -1);
        updateRequestResults(0, "a", 1, "/", 1, number);
        updateRequestResults(number, "a", 1, "/", 1, kFd);
        updateResponseResults(number, 404, 0);
    }
    expectCounted("");
}

TEST(Reporting, EndsAHostAtNulAndIgnoresAClosedConnection) {
    const MeasuredProcess process(kNetscape);
    putIntoForce({{"a.test", {"/x"}}});
    countAccepted(kFd, kUntracked);
    countClosed(kFd);
    updateRequestResults(GETINDEX(kNetscape, kFd), "a.test\0b.test", 13, "/x\0y", 4, kFd);
    expectCounted("total: conn1 req1 open1 | 0: req1 | 0.0: req1 busy1");
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

    // The time is read before the text is examined, even if that is no response.
    const MeasuredProcess process(kNetscape);
    putIntoForce({{"a.test", {"/x"}}});
    countAccepted(kFd, kPlain);
    get("a.test", "/x");
    fakeClock().step = -1'000'000;
    put("no status line");
    EXPECT_EQ(log.next(), logged);
    expectCounted(
        "total: conn1 req1 in100 out1000 open1 | 0: conn1 req1 in100 out1000 open1"
        " | 0.0: req1 out1000 busy1");
}

}  // namespace
}  // namespace tolvane::test
