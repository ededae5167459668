// The frames and the streams of HTTP/2 connections. Every input is read whole and byte
// by byte.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "shim_utils/http2/http2_connection.h"
#include "support/http2_log.h"

namespace tolvane::test {
namespace {

enum Type {
    kData,
    kHeaders,
    kPriority,
    kReset,
    kSettings,
    kPromise,
    kPing,
    kGoAway,
    kWindow,
    kContinuation
};
constexpr int kEndStream = 1;
constexpr int kEndHeaders = 4;
constexpr int kPadded = 8;
constexpr int kWithPriority = 0x20;

const std::string kSetup = frame(kSettings, 0, 0, "");
const std::string kClient = kHttp2Preface + kSetup;
const std::string kGet = bytesOf("82 86 84 41 01 61");  // of "/" at host "a": 6 bytes

std::string headers(int flags, unsigned stream, const std::string& block) {
    return frame(kHeaders, flags | kEndHeaders, stream, block);
}

struct Frames {
    const char* name;
    std::string frames;
    std::string read;
};

const std::vector<Frames> kClientFrames = {
    {"a request", kClient + headers(kEndStream, 1, kGet), "request 1 a / +15 end; "},
    {"a request with a body and trailers",
     kClient + headers(0, 1, kGet) + frame(kData, 0, 1, "abc") + frame(kData, 0, 1, "") +
         headers(kEndStream, 1, notAdded("a", "b")),
     "request 1 a / +15; data 1 +21; trailers 1 +14 end; "},
    {"a body that ends with an empty frame",
     kClient + headers(0, 1, kGet) + frame(kData, 0, 1, "abc") + frame(kData, kEndStream, 1, ""),
     "request 1 a / +15; data 1 +21 end; "},
    {"padding and priority",
     kClient + headers(kPadded | kWithPriority, 1, bytesOf("02 80000003ff") + kGet + "\xff\xff") +
         frame(kData, kPadded | kEndStream, 1, "\x03xyy\xff"),
     "request 1 a / +23; data 1 +14 end; "},
    {"nothing but padding",
     kClient + headers(kPadded, 1, bytesOf("00") + kGet) + headers(kPadded, 3, bytesOf("02ffff")),
     "request 1 a / +16; request 3 - - +12; "},
    {"a block in three frames, cut within fields",
     kClient + frame(kHeaders, kEndStream, 1, kGet.substr(0, 4)) + frame(kContinuation, 0, 1, "") +
         frame(kContinuation, kEndHeaders, 1, kGet.substr(4)) +
         headers(kEndStream, 3, bytesOf("be")),
     "request 1 a / +33 end; request 3 a - +10 end; "},
    {"streams in turn",
     kClient + headers(0, 1, kGet) + headers(0, 3, kGet) + frame(kData, 0, 1, "a") +
         frame(kData, 0, 3, "bc") + frame(kReset, 0, 0x80000001, bytesOf("00000008")) +
         frame(kData, kEndStream, 3, ""),
     "request 1 a / +15; request 3 a / +15; data 1 +10; data 3 +11; reset 1; data 3 +9 end; "},
    {"frames that count nothing",
     kClient + frame(kPriority, 0, 3, "12345") + frame(kPing, 1, 0, "12345678") +
         frame(kWindow, 0, 0, "1234") + frame(kSettings, 1, 0, "") + frame(0xfe, 0xff, 9, "any") +
         headers(0, 1, kGet) + frame(kGoAway, 0, 0, bytesOf("800000070000000061")),
     "request 1 a / +15; goaway 7; "},
    {"no preface", kSetup, "stopped"},
    {"another preface", "PRI * HTTP/2.0\r\n\r\nSM\r\n\n" + kSetup, "stopped"},
    {"no settings first", kHttp2Preface + headers(0, 1, kGet), "stopped"},
    {"an even stream", kClient + headers(0, 2, kGet), "stopped"},
    {"no stream", kClient + headers(0, 0, kGet), "stopped"},
    {"data of no stream", kClient + frame(kData, 0, 0, "a"), "stopped"},
    {"a client's promise", kClient + frame(kPromise, kEndHeaders, 1, bytesOf("00000002") + kGet),
     "stopped"},
    {"another frame within a block", kClient + frame(kHeaders, 0, 1, kGet) + frame(kData, 0, 1, ""),
     "stopped"},
    {"another stream's block within a block",
     kClient + frame(kHeaders, 0, 1, kGet) + frame(kContinuation, kEndHeaders, 3, ""), "stopped"},
    {"a continuation of nothing", kClient + frame(kContinuation, kEndHeaders, 1, kGet), "stopped"},
    {"a block that ends within a field", kClient + headers(0, 1, kGet.substr(0, 5)), "stopped"},
    {"more padding than frame", kClient + headers(kPadded, 1, bytesOf("07 82 86 84 41 01 61")),
     "stopped"},
    {"padding as long as the frame",
     kClient + headers(kPadded, 1, bytesOf("06") + std::string(6, '\xff')), "request 1 - - +16; "},
    {"no room for the length of the padding", kClient + headers(kPadded, 1, ""), "stopped"},
    {"no room for the priority", kClient + headers(kWithPriority, 1, "1234"), "stopped"},
    {"a reset of another length", kClient + frame(kReset, 0, 1, "12345"), "stopped"},
    {"a reset of no stream", kClient + frame(kReset, 0, 0, "1234"), "stopped"},
    {"a setting cut short", kClient + frame(kSettings, 0, 0, "1234567"), "stopped"},
    {"settings acknowledged with settings", kClient + frame(kSettings, 1, 0, "123456"), "stopped"},
    {"a goodbye cut short", kClient + frame(kGoAway, 0, 0, "1234567"), "stopped"},
    {"16 MB of data begin",
     kClient + headers(0, 1, kGet) + bytesOf("ffffff 00 01 00000001") + "abc",
     "request 1 a / +15; data 1 +12; "},
};

const std::vector<Frames> kServerFrames = {
    {"an interim response, the final one, its body and trailers",
     kSetup + headers(0, 1, notAdded(":status", "103")) + headers(0, 1, bytesOf("88")) +
         frame(kData, 0, 1, "ok") + headers(kEndStream, 1, notAdded("a", "b")),
     "interim 1 103 +22; response 1 200 +10; data 1 +11; trailers 1 +14 end; "},
    {"a promise counts nothing, and changes the table",
     kSetup +
         frame(kPromise, kPadded, 1, bytesOf("01 00000002") + added(":status", "201") + "\xff") +
         frame(kContinuation, kEndHeaders, 1, bytesOf("84")) + headers(kEndStream, 1, indexed(62)) +
         headers(kEndStream, 2, bytesOf("88")),
     "response 1 201 +10 end; response 2 200 +10 end; "},
    {"a promise cut short", kSetup + frame(kPromise, kEndHeaders, 1, "123"), "stopped"},
    {"a stream that ends with its reset",
     kSetup + frame(kReset, 0, 5, "1234") + frame(kGoAway, 0, 0, bytesOf("7fffffff00000000")),
     "reset 5; goaway 2147483647; "},
    {"an answer in HTTP/1", "HTTP/1.1 400 Bad Request\r\n\r\n", "stopped"},
};

template <typename Fields>
void expectFrames(const Frames& frames) {
    Http2Log<Fields> whole;
    whole.read(frames.frames);
    EXPECT_EQ(frames.read, whole.text()) << frames.name;
    Http2Log<Fields> byByte;
    for (const char& c : frames.frames) byByte.read({&c, 1});
    EXPECT_EQ(frames.read, byByte.text()) << frames.name << ", byte by byte";
}

TEST(Http2Frames, AreReadHoweverTheyAreSplit) {
    for (const Frames& frames : kClientFrames) expectFrames<RequestFields>(frames);
    for (const Frames& frames : kServerFrames) expectFrames<ResponseFields>(frames);
}

TEST(Http2Frames, UpgradedConnectionHasStreamOne) {
    Http2Log<RequestFields> log(true);
    log.read(kClient + headers(0, 1, kGet) + headers(0, 3, kGet));
    EXPECT_EQ("trailers 1 +15; request 3 a / +15; ", log.text());
    // Its settings have come with the request that asked for it.
    Http2Log<ResponseFields> responses(true);
    responses.read(kSetup + headers(kEndStream, 1, bytesOf(kTableOf64K) + bytesOf("88")));
    EXPECT_EQ("response 1 200 +14 end; ", responses.text());
}

TEST(Http2Frames, PrefaceMayHaveBegunElsewhere) {
    Http2Log<RequestFields> log;
    log.reader->reset(11, false);
    log.read(kClient.substr(11) + headers(0, 1, kGet));
    EXPECT_EQ("request 1 a / +15; ", log.text());
}

TEST(Http2Frames, SkipsBytesOfUnknownContent) {
    Http2Log<ResponseFields> log;
    log.read(kSetup + headers(0, 1, bytesOf("88")) +
             frame(kData, kEndStream, 1, std::string(70, 'd')).substr(0, 19));
    EXPECT_EQ(0U, log.skip(20));
    EXPECT_EQ(5U, log.skip(45));
    EXPECT_EQ("response 1 200 +10; data 1 +79 end; ", log.text());
    EXPECT_EQ(5U, log.skip(5));
    EXPECT_TRUE(log.reader->stopped());
}

// --------------------------------------------------------------- connections

using Connection = Http2Connection<std::array<std::int64_t, 2>>;

TEST(Http2Connection, SettingsOfOneSideBoundTheOther) {
    for (const bool announced : {false, true}) {
        const auto connection = std::make_unique<Connection>();
        connection->reset(0, false);
        const std::string settings =
            frame(kSettings, 0, 0, bytesOf("0003 00000064 0001 00010000 0001 00001000"));
        const std::string client = kHttp2Preface + (announced ? settings : kSetup);
        const std::string server = kSetup + headers(0, 1, bytesOf(kTableOf64K) + bytesOf("88"));
        const char* p = client.data();
        EXPECT_EQ(Http2Event::kMore, connection->readRequests(p, p + client.size()));
        p = server.data();
        EXPECT_EQ(announced ? Http2Event::kResponse : Http2Event::kNotHttp2,
                  connection->readResponses(p, p + server.size()));
    }
}

// Memory of an earlier connection that ended anywhere is as good as new.
TEST(Http2Connection, ResetLeavesNothingOfAnEarlierConnection) {
    const auto connection = std::make_unique<Connection>();
    const std::string client = kClient + headers(0, 1, kGet + added("x", "y"));
    for (std::size_t length = 0; length <= client.size(); ++length) {
        for (const std::string& text : {client.substr(0, length), client}) {
            connection->reset(0, false);
            EXPECT_EQ(nullptr, connection->streams.find(1));
            const char* p = text.data();
            const Http2Event event = connection->readRequests(p, p + text.size());
            EXPECT_EQ(text.size() == client.size() ? Http2Event::kRequest : Http2Event::kMore,
                      event);
            connection->streams.add(1, {});
        }
    }
}

TEST(Http2Streams, AreFoundWhileOthersComeAndGo) {
    const auto table = std::make_unique<StreamTable<unsigned>>();
    std::map<unsigned, unsigned> model;
    std::minstd_rand random(1);
    for (unsigned i = 0; i < 200'000; ++i) {
        // Numbers that collide, and a table that is full at times.
        const unsigned stream = static_cast<unsigned>(random() % 4 * 512 + random() % 128 * 2 + 1);
        unsigned* const value = table->find(stream);
        ASSERT_EQ(model.contains(stream), value != nullptr);
        if (value != nullptr) {
            ASSERT_EQ(model[stream], *value);
        }
        if (value == nullptr && !table->full() && random() % 64 != 0) {
            table->add(stream, i);
            model[stream] = i;
        } else if (random() % 4 == 0) {
            table->remove(stream);
            model.erase(stream);
        }
        ASSERT_EQ(model.size(), table->count());
    }
    std::map<unsigned, unsigned> seen;
    table->forEach([&](unsigned stream, unsigned value) { seen[stream] = value; });
    EXPECT_EQ(model, seen);
}

TEST(Http2Streams, EndWhenBothSidesHaveEnded) {
    const auto table = std::make_unique<StreamTable<unsigned>>();
    table->add(1, 7);
    table->end(1, StreamSide::kResponse);
    table->end(1, StreamSide::kResponse);
    table->end(3, StreamSide::kRequest);
    EXPECT_NE(nullptr, table->find(1));
    table->end(1, StreamSide::kRequest);
    EXPECT_EQ(nullptr, table->find(1));
}

}  // namespace
}  // namespace tolvane::test
