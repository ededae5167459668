// The decoder of HTTP/2 header blocks. Every block is read whole and byte by byte.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/http2_log.h"

namespace tolvane::test {
namespace {

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

}  // namespace
}  // namespace tolvane::test
