// The distribution's own Apache under load: every socket call counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include "apache_server.h"
#include "support/http_client.h"
#include "support/process.h"
#include "support/sandbox.h"

namespace tolvane::test {
namespace {

std::vector<Exchange> mix() {
    return {{get("a.test", "/small.html"), 0, 0},
            {get("b.test", "/small.html"), 1, 0},
            {get("www.a.test", "/moved"), 0},
            {get("nowhere.test", "/small.html")},
            {get("a.test", "/small-but-missing"), 0, 0},
            {get("b.test", "/busy"), 1, 0},
            {get("a.test", "/large.bin"), 0, 1},
            {get("nowhere.test", "/missing")},
            {"POST /small.html HTTP/1.1\r\nHost: a.test\r\nContent-Length: 30000\r\n\r\n" +
                 std::string(30000, 'p'),
             0, 0},
            {"GET /small.html HTTP/1.1\r\nHost: a.test\r\n", 0, 0, true},
            {get("a.test", "/large.bin"), 0, 1},
            {get("b.test", "/large.bin"), 1, 0},
            {"GET /sma", -1, -1, true}};
}

class Apache : public ApacheTest {
  protected:
    // Prefork's processes publish their last counts when the server stops, the
    // others publish all counts within two intervals.
    void expectSoon(const Segment& segment, const Counts& expected) const {
        if (threaded()) expectCounts(segment, expected.text(), std::chrono::seconds(3));
    }

    void serveLoad(const Segment& segment, Counts& expected) const {
        // Every process takes the configuration before a site is asked for.
        expected += warmUp(kApachePort, GetParam().connections, get("nowhere.test", "/small.html"),
                           threaded() ? 1 : 6);
        expectSoon(segment, expected);
        for (const int port : {kApachePort, kSecondApachePort}) {
            expected +=
                run(port, {.threads = 20, .connections = 100, .requests = 12, .mix = mix()});
        }
        // Workers pass these on to a daemon of the server, or fork.
        expected += run(
            kApachePort,
            {.threads = 2, .connections = 5, .requests = 2, .mix = {{get("a.test", "/cgi"), 0}}});
        expectSoon(segment, expected);
    }
};
INSTANTIATE_TEST_SUITE_P(Modules, Apache, testing::ValuesIn(kModules),
                         [](const auto& module) { return std::string(module.param.name); });

TEST_P(Apache, CountsEqualWhatTheClientsCounted) {
    Process server = start();
    Segment segment;
    ASSERT_EQ(segment.structures(), 2);
    segment.configure(kApacheSites, 1);
    const auto allStarted = [&] { return started(server); };
    ASSERT_TRUE(eventually(std::chrono::seconds(10), allStarted))
        << readFile("/opt/server/logs/error_log");
    Counts expected;
    serveLoad(segment, expected);
    if (threaded()) {
        const auto before = server.children();
        server.signal(SIGUSR1);
        EXPECT_TRUE(eventually(std::chrono::seconds(15), [&] {
            const auto now = server.children();
            return started(server) && std::ranges::find_first_of(now, before) == now.end();
        })) << "graceful restart";
        serveLoad(segment, expected);
    }
    EXPECT_GT(segment.responseTime(0, 1), 0.0);

    // A client has a response before the process that sent it gets to count it,
    // and Apache's processes end from within their signal handler.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(std::chrono::seconds(15)), 0);
    EXPECT_GT(expected.total.requests, 10000u);
    EXPECT_GT(expected.total.droppedRequests, 1000u);
    EXPECT_EQ(segment.counts().text(), expected.text());
    EXPECT_EQ(segment.config().version, kVersionRemoved);
    EXPECT_EQ(leftovers(), "1 shm ");
    EXPECT_EQ(readFile("/opt/server/logs/error_log").find("exit signal"), std::string::npos);
}

}  // namespace
}  // namespace tolvane::test
