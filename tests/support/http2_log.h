// HTTP/2 in text: frames for a reader, and what it finds in them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "shim_utils/http2/http2_reader.h"

namespace tolvane::test {

inline std::string frame(int type, int flags, unsigned stream, std::string_view content) {
    std::string text;
    for (const int shift : {16, 8, 0}) text += static_cast<char>(content.size() >> shift);
    text += {static_cast<char>(type), static_cast<char>(flags)};
    for (const int shift : {24, 16, 8, 0}) text += static_cast<char>(stream >> shift);
    return text.append(content);
}

inline std::string bytesOf(std::string_view hex) {
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

// A literal whose name is `name` (of less than 127 bytes), not Huffman-coded.
inline std::string literal(char form, const std::string& name, const std::string& value) {
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
inline std::string added(const std::string& name, const std::string& value) {
    return literal('\x40', name, value);
}
inline std::string notAdded(const std::string& name, const std::string& value) {
    return literal('\x00', name, value);
}
inline std::string indexed(int index) {
    return {static_cast<char>(0x80 + index)};
}
// The table may have 64 KB.
inline constexpr const char* kTableOf64K = "3fe1ff03";

inline std::string describe(const RequestFields& fields) {
    static constexpr const char* kMethods[] = {"", "HEAD ", "CONNECT "};
    const auto text = [](Bytes bytes) {
        return bytes.data == nullptr ? "-" : std::string(bytes.data, bytes.length);
    };
    return kMethods[static_cast<int>(fields.method())] + text(fields.host()) + " " +
           text(fields.path());
}
inline std::string describe(const ResponseFields& fields) {
    return std::to_string(fields.status());
}

// The events of a reader, in an order and with numbers that do not depend on how the
// input is split.
template <typename Fields>
class Http2Log {
  public:
    using Reader = Http2Reader<Fields>;

    explicit Http2Log(bool upgraded = false) { reader->reset(0, upgraded); }

    void read(std::string_view part) {
        const char* p = part.data();
        const char* const end = p + part.size();
        while (p != end && !reader->stopped()) add(reader->read(p, end));
    }
    // Returns the bytes behind the event.
    std::uint64_t skip(std::uint64_t n) {
        add(reader->skip(n));
        return n;
    }
    std::string text() {
        endData();
        return text_;
    }

    std::unique_ptr<Reader> reader = std::make_unique<Reader>();

  private:
    void add(Http2Event event) {
        static constexpr const char* kNames[] = {"", "request", "response", "interim", "trailers",
                                                 "", "reset",   "goaway",   "stopped"};
        if (event == Http2Event::kMore) return;
        const std::uint32_t stream = reader->stream();
        if (event == Http2Event::kData) {
            if (stream != dataStream_) endData();
            dataStream_ = stream;
            dataBytes_ += reader->bytes();
            if (reader->endsStream()) endData(" end");
            return;
        }
        endData();
        text_ += kNames[static_cast<int>(event)];
        if (event == Http2Event::kNotHttp2) return;
        text_ += " " + std::to_string(stream);
        if (event < Http2Event::kData) {
            if (event != Http2Event::kTrailers) text_ += " " + describe(reader->fields());
            text_ += " +" + std::to_string(reader->bytes()) + (reader->endsStream() ? " end" : "");
        }
        text_ += "; ";
    }
    void endData(const char* how = "") {
        if (dataStream_ == 0) return;
        text_ +=
            "data " + std::to_string(dataStream_) + " +" + std::to_string(dataBytes_) + how + "; ";
        dataStream_ = 0;
        dataBytes_ = 0;
    }

    std::string text_;
    std::uint32_t dataStream_ = 0;
    std::uint64_t dataBytes_ = 0;
};

}  // namespace tolvane::test
