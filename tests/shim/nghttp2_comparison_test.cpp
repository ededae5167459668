// The decoder of header blocks finds what libnghttp2's finds: in random fields that
// libnghttp2 has encoded with tables of random sizes, and in damaged blocks.
#include <gtest/gtest.h>
#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/http2_log.h"

namespace tolvane::test {
namespace {

using FieldList = std::vector<std::pair<std::string, std::string>>;

class Nghttp2 {
  public:
    Nghttp2() {
        nghttp2_hd_deflate_new(&deflater_, 1 << 16);
        nghttp2_hd_inflate_new(&inflater_);
        nghttp2_hd_inflate_change_table_size(inflater_, 1 << 16);
        changeTable(4096);
    }
    ~Nghttp2() {
        nghttp2_hd_deflate_del(deflater_);
        nghttp2_hd_inflate_del(inflater_);
    }
    Nghttp2(const Nghttp2&) = delete;
    Nghttp2& operator=(const Nghttp2&) = delete;

    void changeTable(std::size_t size) { nghttp2_hd_deflate_change_table_size(deflater_, size); }

    std::string encode(FieldList& fields, std::mt19937& random) {
        std::vector<nghttp2_nv> list;
        for (auto& [name, value] : fields) {
            const auto flags = random() % 8 == 0 ? NGHTTP2_NV_FLAG_NO_INDEX : NGHTTP2_NV_FLAG_NONE;
            list.push_back({reinterpret_cast<std::uint8_t*>(name.data()),
                            reinterpret_cast<std::uint8_t*>(value.data()), name.size(),
                            value.size(), static_cast<std::uint8_t>(flags)});
        }
        std::string block(nghttp2_hd_deflate_bound(deflater_, list.data(), list.size()), '\0');
        const auto length =
            nghttp2_hd_deflate_hd(deflater_, reinterpret_cast<std::uint8_t*>(block.data()),
                                  block.size(), list.data(), list.size());
        block.resize(static_cast<std::size_t>(length));
        return block;
    }

    // A block with the index of the oldest field, or the next one.
    std::string oldestField(bool next) const {
        std::string block = "\xff";
        std::size_t index = nghttp2_hd_inflate_get_num_table_entries(inflater_) + (next ? 1 : 0);
        if (index < 127) return {static_cast<char>(0x80 + index)};
        for (index -= 127; index >= 128; index /= 128)
            block += static_cast<char>(index % 128 + 128);
        return block + static_cast<char>(index);
    }

    // False: an error.
    bool decode(const std::string& block, FieldList& fields) {
        const auto* p = reinterpret_cast<const std::uint8_t*>(block.data());
        const std::uint8_t* const end = p + block.size();
        for (;;) {
            nghttp2_nv field = {};
            int flags = 0;
            const ssize_t n = nghttp2_hd_inflate_hd2(inflater_, &field, &flags, p,
                                                     static_cast<std::size_t>(end - p), 1);
            if (n < 0) return false;
            p += n;
            const auto text = [](const std::uint8_t* bytes, std::size_t length) {
                return std::string(reinterpret_cast<const char*>(bytes), length);
            };
            if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) {
                fields.emplace_back(text(field.name, field.namelen),
                                    text(field.value, field.valuelen));
            }
            if ((flags & NGHTTP2_HD_INFLATE_FINAL) != 0) break;
        }
        nghttp2_hd_inflate_end_headers(inflater_);
        return true;
    }

  private:
    nghttp2_hd_deflater* deflater_ = nullptr;
    nghttp2_hd_inflater* inflater_ = nullptr;
};

// What the decoders should have found in `fields`.
std::string expected(const FieldList& fields, const RequestFields&) {
    const auto last = [&](const char* name) {
        const auto found = std::find_if(fields.rbegin(), fields.rend(),
                                        [&](const auto& field) { return field.first == name; });
        return found != fields.rend() ? &found->second : nullptr;
    };
    const auto kept = [](const std::string* text, std::size_t longest) {
        return text == nullptr || text->empty() || text->size() > longest ? "-" : *text;
    };
    const std::string* method = last(":method");
    const bool named = method != nullptr && (*method == "HEAD" || *method == "CONNECT");
    const std::string* host = last(":authority");
    if (host == nullptr) host = last("host");
    return (named ? *method + " " : "") + kept(host, 256) + " " + kept(last(":path"), 3072);
}
std::string expected(const FieldList& fields, const ResponseFields&) {
    for (auto field = fields.rbegin(); field != fields.rend(); ++field) {
        if (field->first != ":status") continue;
        const std::string& value = field->second;
        return value.size() == 3 && std::ranges::all_of(value, isDigit)
                   ? std::to_string(std::stoi(value))
                   : "0";
    }
    return "0";
}

class Comparison : public testing::Test {
  protected:
    std::size_t upTo(std::size_t limit) { return random() % limit; }

    std::string text() {
        static constexpr const char* kAlphabets[] = {"/abcdefgh0123456789.-_%", "{}|~^<>@`\\", "a"};
        const std::string_view alphabet = kAlphabets[upTo(3)];
        const std::size_t length = upTo(16) == 0 ? upTo(1 + upTo(5000)) : upTo(60);
        std::string text;
        for (std::size_t i = 0; i < length; ++i) {
            text += upTo(200) == 0 ? static_cast<char>(random()) : alphabet[upTo(alphabet.size())];
        }
        return text;
    }
    FieldList fields() {
        static constexpr const char* kNames[] = {":method",    ":path",   ":authority",  "host",
                                                 ":status",    ":status", "cookie",      "referer",
                                                 "user-agent", ":scheme", "x-of-its-own"};
        static constexpr const char* kValues[] = {
            "GET", "HEAD", "CONNECT", "/", "/index.html", "a.test", "200", "404", "201", "503", ""};
        FieldList list;
        for (std::size_t n = upTo(12); n > 0; --n) {
            list.emplace_back(upTo(10) != 0 ? kNames[upTo(11)] : text(),
                              upTo(3) != 0 ? kValues[upTo(11)] : text());
        }
        return list;
    }
    void damage(std::string& block) {
        if (block.empty() || upTo(20) != 0) return;
        const std::size_t at = upTo(block.size());
        switch (upTo(4)) {
            case 0:
                block[at] = static_cast<char>(random());
                break;
            case 1:
                block.resize(at);
                break;
            case 2:
                block.insert(at, 1, static_cast<char>(random()));
                break;
            default:
                for (char& c : block) c = static_cast<char>(random());
        }
    }
    template <typename Fields>
    bool decodeInParts(HeaderDecoder<Fields>& decoder, const std::string& block) {
        decoder.beginBlock();
        for (std::size_t i = 0; i < block.size();) {
            const std::size_t n = upTo(3) != 0 ? 1 + upTo(block.size() - i) : 1;
            const std::string part = block.substr(i, n);  // so that reading on would be noticed
            if (!decoder.read(part.data(), part.data() + n)) return false;
            i += n;
        }
        return decoder.endBlock();
    }
    // One connection, up to the first error. `exactTable`: of at most as many bytes the
    // table is exact.
    template <typename Fields>
    void compare(std::size_t exactTable) {
        Nghttp2 theirs;
        const auto decoder = std::make_unique<HeaderDecoder<Fields>>();
        decoder->reset();
        decoder->allowTable(1 << 16);
        for (int i = 0; i < 40; ++i) {
            std::string block;
            if (upTo(4) == 0) {
                block = theirs.oldestField(upTo(8) == 0);
            } else {
                if (upTo(8) == 0) theirs.changeTable(upTo(2) != 0 ? exactTable : upTo(exactTable));
                FieldList sent = fields();
                block = theirs.encode(sent, random);
                damage(block);
            }
            FieldList found;
            const bool decoded = theirs.decode(block, found);
            ASSERT_EQ(decoded, decodeInParts(*decoder, block));
            ++(decoded ? blocks : errors);
            if (!decoded) return;
            ASSERT_EQ(expected(found, decoder->fields()), describe(decoder->fields()));
        }
    }

    std::mt19937 random{7};
    long blocks = 0;
    long errors = 0;
};

TEST_F(Comparison, RequestsAreDecodedAlike) {
    for (int i = 0; i < 1500; ++i) ASSERT_NO_FATAL_FAILURE(compare<RequestFields>(4096));
    EXPECT_GT(blocks, 1000);
    EXPECT_GT(errors, 100);
}

TEST_F(Comparison, ResponsesAreDecodedAlike) {
    for (int i = 0; i < 1500; ++i) ASSERT_NO_FATAL_FAILURE(compare<ResponseFields>(16384));
    EXPECT_GT(blocks, 1000);
    EXPECT_GT(errors, 100);
}

}  // namespace
}  // namespace tolvane::test
