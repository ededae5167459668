// The HTTP/2 readers: header blocks, frames, the table of streams. Every input is read
// whole and byte by byte.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "shim_utils/http2/http2_connection.h"
#include "support/http2_log.h"

namespace tolvane::test {
namespace {

std::string bytesOf(std::string_view hex) {
    std::string bytes;
    int high = -1;
    for (const char c : hex) {
        if (c == ' ') continue;
        const int digit = c <= '9' ? c - '0' : c - 'a' + 10;
        if (high >= 0) bytes += static_cast<char>(high * 16 + digit);
        high = high < 0 ? digit : -1;
    }
    return bytes;
}

// ------------------------------------------------------------ header blocks

// A literal whose name is `name` (of less than 127 bytes), not Huffman-coded.
std::string literal(char form, const std::string& name, const std::string& value) {
    std::string text = {form, static_cast<char>(name.size())};
    text += name;
    std::size_t rest = value.size();
    if (rest < 127) {
        text += static_cast<char>(rest);
    } else {
        text += '\x7f';
        for (rest -= 127; rest >= 128; rest /= 128) text += static_cast<char>(rest % 128 + 128);
        text += static_cast<char>(rest);
    }
    return text + value;
}
std::string added(const std::string& name, const std::string& value) {
    return literal('\x40', name, value);
}
std::string notAdded(const std::string& name, const std::string& value) {
    return literal('\x00', name, value);
}
std::string indexed(int index) {
    return {static_cast<char>(0x80 + index)};
}
constexpr const char* kTableOf64K = "3fe1ff03";

std::string operator*(int n, const std::string& text) {
    std::string all;
    for (int i = 0; i < n; ++i) all += text;
    return all;
}

struct Blocks {
    const char* name;
    std::vector<std::string> blocks;
    std::string read;
    std::uint32_t allowedTable = 4096;
};

template <typename Fields>
std::string readBlocks(const Blocks& blocks, bool whole) {
    const auto decoder = std::make_unique<HeaderDecoder<Fields>>();
    decoder->reset();
    decoder->allowTable(blocks.allowedTable);
    std::string read;
    for (const std::string& block : blocks.blocks) {
        decoder->beginBlock();
        const std::size_t step = whole ? block.size() : 1;
        for (std::size_t i = 0; i < block.size(); i += step) {
            if (!decoder->read(&block[i], &block[i] + step)) return read + "error";
        }
        if (!decoder->endBlock()) return read + "error";
        read += describe(decoder->fields()) + "; ";
    }
    return read;
}

const std::string kLong(3072, 'p');

const std::vector<Blocks> kRequests = {
    {"literals",
     {bytesOf("400a637573746f6d2d6b65790d637573746f6d2d686561646572"),
      bytesOf("040c2f73616d706c652f70617468"), bytesOf("100870617373776f726406736563726574"),
      bytesOf("82")},
     "- -; - /sample/path; - -; - -; "},
    {"requests",
     {bytesOf("828684410f7777772e6578616d706c652e636f6d"), bytesOf("828684be58086e6f2d6361636865"),
      bytesOf("828785bf400a637573746f6d2d6b65790c637573746f6d2d76616c7565")},
     "www.example.com /; www.example.com /; www.example.com /index.html; "},
    {"requests in Huffman code",
     {bytesOf("828684418cf1e3c2e5f23a6ba0ab90f4ff"), bytesOf("828684be5886a8eb10649cbf"),
      bytesOf("828785bf408825a849e95ba97d7f8925a849e95bb8e8b4bf")},
     "www.example.com /; www.example.com /; www.example.com /index.html; "},
    {"methods",
     {added(":method", "HEAD") + indexed(62), added(":method", "CONNECT"), indexed(63) + indexed(1),
      bytesOf("0f2f0448454144"), notAdded(":method", "HEADS"), indexed(62) + indexed(3)},
     "HEAD - -; CONNECT - -; HEAD - -; HEAD - -; - -; - -; "},
    {"the authority, else the host field",
     {notAdded("host", "b") + notAdded(":authority", "a"), added("host", "c"), indexed(62),
      indexed(62) + notAdded(":authority", ""), notAdded("Host", "d") + indexed(38)},
     "a -; c -; c -; - -; - -; "},
    {"a name from the dynamic table",
     {added(":path", "/1"), bytesOf("7e022f32"), indexed(62), indexed(63), bytesOf("0f2f022f33")},
     "- /1; - /2; - /2; - /1; - /3; "},
    {"the longest texts that are kept, and longer ones",
     {added(":path", kLong) + added("host", std::string(256, 'h')), indexed(62) + indexed(63),
      added(":path", kLong + "p") + added("host", std::string(257, 'h')), indexed(62) + indexed(63),
      indexed(4)},
     2 * (std::string(256, 'h') + " " + kLong + "; ") + "- -; - -; - /; "},
    {"the oldest fields leave the table",
     {added(":path", "/" + std::string(2000, 'a')) + added(":path", "/" + std::string(1900, 'b')),
      added("x", std::string(87, 'c')), indexed(64), added("", ""), indexed(64), indexed(65)},
     "- /" + std::string(1900, 'b') + "; - -; - /" + std::string(2000, 'a') + "; - -; - /" +
         std::string(1900, 'b') + "; error"},
    {"a field larger than the table empties it",
     {added(":path", "/"), added("x", std::string(4064, 'x')), indexed(62)},
     "- /; - -; error"},
    {"128 of the smallest fields",
     {128 * added("", ""), bytesOf("ff3e"), bytesOf("ff3f")},
     "- -; - -; error"},
    {"a large table keeps the newest fields",
     {bytesOf(kTableOf64K) + added("host", "a") + 127 * added("", ""), bytesOf("ff3e"),
      added("", ""), bytesOf("ff3e"), bytesOf("ff3f")},
     "a -; a -; - -; - -; error",
     65536},
    {"the values of a large table that do not fit are unknown",
     {bytesOf(kTableOf64K) + added(":path", "/old"), added(":path", kLong), indexed(63),
      added(":path", kLong), indexed(64), indexed(63), indexed(62)},
     "- /old; - " + kLong + "; - /old; - " + kLong + "; - -; - -; - " + kLong + "; ",
     1 << 20},
    {"a change of the size evicts",
     {added("x", "y") + added("z", ""), bytesOf("3f02") + indexed(62), indexed(63)},
     "- -; - -; error"},
    {"several changes of the size",
     {bytesOf("203fe11f") + added("x", ""), indexed(62)},
     "- -; - -; "},
    {"a size behind a field", {indexed(2) + bytesOf("20")}, "error"},
    {"a size above the announced", {bytesOf("3fe21f")}, "error"},
    {"an announcement of less is not enforced", {bytesOf("3fe11f")}, "- -; ", 0},
    {"not even an announcement allows more than 64 KB", {bytesOf("3fe2ff03")}, "error", 1 << 20},
    {"index 0", {bytesOf("80")}, "error"},
    {"no such index", {bytesOf("be")}, "error"},
    {"no such name", {bytesOf("7e00")}, "error"},
    {"the largest integer is no index", {bytesOf("ff80feffff0f")}, "error"},
    {"integers of more than 32 bits", {bytesOf("0ff5ffffff0f 012f")}, "error"},
    {"zeros without end", {bytesOf("0f808080808000 00")}, "error"},
    {"a long form of a small integer", {bytesOf("ff8000")}, "error"},
    {"a text of 64 KB and a byte", {bytesOf("007f82ff03")}, "error"},
    {"cut after the name", {bytesOf("000161")}, "error"},
    {"cut in the value", {bytesOf("04022f")}, "error"},
    {"cut in an index", {bytesOf("ff")}, "error"},
    {"padding of ones", {bytesOf("04811f"), bytesOf("0482 1fff")}, "- a; error"},
    {"padding that is not ones", {bytesOf("04811e")}, "error"},
    {"padding of a byte", {bytesOf("0482f8ff")}, "error"},
    {"the end symbol", {bytesOf("0484ffffffff")}, "error"},
    {"the longest codes", {bytesOf("0484fffffff0")}, "error"},
};

const std::vector<Blocks> kResponses = {
    {"responses, with a table of 256 bytes",
     {bytesOf(
          "3fe1014803333032580770726976617465611d4d6f6e2c203231204f637420323031332032303a31333a3231"
          "20474d546e1768747470733a2f2f7777772e6578616d706c652e636f6d"),
      bytesOf("4803333037c1c0bf"),
      bytesOf(
          "88c1611d4d6f6e2c203231204f637420323031332032303a31333a323220474d54c05a04677a69707738666f"
          "6f3d4153444a4b48514b425a584f5157454f50495541585157454f49553b206d61782d6167653d333630303b"
          "2076657273696f6e3d31"),
      bytesOf("bebfc0"), bytesOf("c1")},
     "302; 307; 200; 0; error"},
    {"responses in Huffman code",
     {bytesOf(
          "3fe101488264025885aec3771a4b6196d07abe941054d444a820059504 0b8166e082a62d1bff6e919d29ad"
          "171863c78f0b97c8e9ae82ae43d3"),
      bytesOf("4883640effc1c0bf"),
      bytesOf(
          "88c16196d07abe941054d444a8200595040b8166e084a62d1bffc05a839bd9ab77ad94e7821dd7f2e6c7b335"
          "dfdfcd5b3960d5af27087f3672c1ab270fb5291f9587316065c003ed4ee5b1063d5007"),
      bytesOf("bebfc0"), bytesOf("c1")},
     "302; 307; 200; 0; error"},
    {"statuses of the tables",
     {indexed(8), indexed(9), indexed(10), indexed(11), indexed(12), indexed(13), indexed(14),
      added(":status", "103"), indexed(62), added("x", "y") + indexed(63), indexed(62)},
     "200; 204; 206; 304; 400; 404; 500; 103; 103; 103; 0; "},
    {"what is no status",
     {added(":status", "20"), notAdded(":status", "2000"), notAdded(":status", "2x0"), indexed(62),
      added("status", "200"), bytesOf("7f00 03 323031")},
     "0; 0; 0; 0; 0; 201; "},
    {"fields of a request", {indexed(2) + indexed(4) + notAdded("host", "a")}, "0; "},
    {"512 fields of a large table",
     {bytesOf(kTableOf64K) + added(":status", "201") + 511 * added("", ""), bytesOf("ffbe03"),
      added("", ""), bytesOf("ffbe03"), bytesOf("ffbf03")},
     "201; 201; 0; 0; error",
     65536},
};

TEST(Http2Headers, DecodesWhatIsCountedBy) {
    for (const bool whole : {true, false}) {
        for (const Blocks& blocks : kRequests) {
            EXPECT_EQ(blocks.read, readBlocks<RequestFields>(blocks, whole)) << blocks.name;
        }
        for (const Blocks& blocks : kResponses) {
            EXPECT_EQ(blocks.read, readBlocks<ResponseFields>(blocks, whole)) << blocks.name;
        }
    }
}

// ------------------------------------------------------------------- frames

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
            EXPECT_EQ(0U, connection->streams.count());
            const char* p = text.data();
            const Http2Event event = connection->readRequests(p, p + text.size());
            EXPECT_EQ(text.size() == client.size() ? Http2Event::kRequest : Http2Event::kMore,
                      event);
            connection->streams.add(static_cast<unsigned>(length) * 2 + 1, {});
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
