// What an agent writes into the segment, and what a process makes of it.
#include <thread>

#include "e2e/script.h"

namespace tolvane::test {
namespace {

const std::string kOk = response("200 OK");

class Configuration : public ScriptTest {
  protected:
    // One request of its own, answered by one write: with an interval of 1 it
    // is published at once, and a newer configuration is taken then.
    static void serve(Measured& server, const std::string& host = "a.test") {
        Connection connection(*server.worker, server.listener);
        connection.receive("read", get(host, "/"));
        connection.transmit("write", kOk);
        (*server.worker)(connection.call("close", ""));
    }
};

TEST_F(Configuration, IsTakenWhenItsVersionHasGrown) {
    Measured server;
    EXPECT_EQ(server.segment.config().version, kVersionCreated);
    EXPECT_EQ(server.segment.config().interval, kDefaultInterval);
    server.segment.configure({{"a.test", {}, {}}});
    serve(server);  // takes version 1
    std::snprintf(server.segment.config().siteName[0], kNameSize, "b.test");
    serve(server);
    serve(server, "b.test");
    EXPECT_EQ(server.segment.counts().site[0].requests, 1u);
    server.segment.raiseVersion();
    serve(server);  // takes version 2
    serve(server, "b.test");
    EXPECT_EQ(server.segment.counts().site[0].requests, 3u);
    EXPECT_EQ(server.segment.config().parentPid, server.parent->pid());
}

TEST_F(Configuration, ResponseTimesRunFromTheRequestToTheResponse) {
    Measured server;
    server.segment.configure({{"a.test", {}, {"*"}}});
    serve(server);
    Connection connection(*server.worker, server.listener);
    for (const std::string status : {"200 OK", "302 Found", "404 Not Found"}) {
        connection.receive("read", get("a.test", "/"));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        connection.transmit("write", response(status));
    }
    EXPECT_NEAR(server.segment.responseTime(0, 0), 0.4, 0.15) << "errors have no response time";
    EXPECT_EQ(server.segment.record(0).category[0][0].inProgress, 0);
}

TEST_F(Configuration, AGroupThatTheAgentTookStartsAnew) {
    Measured server;
    server.segment.configure({{"a.test", {}, {"*"}}});
    for (int i = 0; i < 3; ++i) serve(server);
    auto& record = server.segment.record(0);
    std::int32_t ResultStruct::*const flags[] = {
        &ResultStruct::totalDirty, &ResultStruct::sitesDirty, &ResultStruct::categoriesDirty};
    std::uint32_t expected[] = {3, 2, 2};
    for (std::size_t taken = 0; taken < 3; ++taken) {
        record.*flags[taken] = 0;
        serve(server);
        for (std::size_t group = 0; group < 3; ++group) {
            expected[group] = group == taken ? 1 : expected[group] + 1;
            EXPECT_EQ(record.*flags[group], 1);
        }
        EXPECT_EQ(record.total.requests, expected[0]);
        EXPECT_EQ(record.site[0].requests, expected[1]);
        EXPECT_EQ(record.category[0][0].requests, expected[2]);
    }
}

TEST_F(Configuration, AnImpossibleOneIsBoundedAndNamedInTheLogOnce) {
    void (*const damages[])(ConfigInfo&) = {
        [](ConfigInfo& c) { c.numSites = 99; },
        [](ConfigInfo& c) { c.numSites = -5; },
        [](ConfigInfo& c) { c.numCategories[0] = 1000; },
        [](ConfigInfo& c) { c.numHosts[9] = 2000000000; },
        [](ConfigInfo& c) { c.categories[0][0].numSections = 77; },
        [](ConfigInfo& c) { c.categories[0][0].sections[0].numPieces = 77; },
        [](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[0] = 1000; },
        [](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[0] = -3; },
        [](ConfigInfo& c) { std::fill_n(c.siteName[0], kNameSize, 'x'); },
        [](ConfigInfo& c) { std::fill_n(c.hostName[0][0], kNameSize, 'x'); },
        [](ConfigInfo& c) {
            std::fill_n(c.categories[0][0].sections[0].piece[0], kPieceSize, 'x');
        },
        [](ConfigInfo& c) {
            const auto version = c.version;
            std::fill_n(reinterpret_cast<unsigned char*>(&c), sizeof c - 4, 0x7f);
            c.version = version;
        },
    };
    Measured server;
    const std::vector<Site> sites(10, Site{"a.test", {"b.test"}, {"/*"}});
    server.segment.configure(sites);
    serve(server);
    const ConfigInfo sound = server.segment.config();
    for (const auto& damage : damages) {
        const auto number = &damage - damages;
        const auto logged = logMessages().size();
        const auto version = server.segment.config().version;
        damage(server.segment.config());
        server.segment.raiseVersion();
        for (int i = 0; i < 3; ++i) serve(server, "b.test");
        EXPECT_EQ(logMessages().size(), logged + 1) << "damage " << number;
        server.segment.config() = sound;
        server.segment.config().version = version + 1;
        server.segment.raiseVersion();
        serve(server);
    }
    const auto before = server.segment.counts().site[0].requests;
    serve(server);
    EXPECT_EQ(server.segment.counts().site[0].requests, before + 1);
}

}  // namespace
}  // namespace tolvane::test
