// Finds the end of a message body.
#pragma once

#include <cstdint>

namespace tolvane {

// How the end of a body is found.
enum class Framing : std::uint8_t {
    kNone,        // there is no body
    kLength,      // by its length
    kChunked,     // by its chunks
    kUntilClose,  // with the connection
    kUnknown,     // not at all: the message contradicts itself
};

// Reads a body, however it is split. A zeroed object has no body.
class BodyReader {
  public:
    enum class Result { kMore, kEnd, kInvalid };

    // `length` in bytes, for kLength.
    void begin(Framing framing, std::uint64_t length);

    // Moves `p` forward. kEnd: it stands behind the body. kMore: the body goes on
    // behind `end`. kInvalid: the chunks are not those of a body; `p` stands
    // anywhere.
    Result read(const char*& p, const char* end);

    // The same for `n` bytes of unknown content. `n` becomes the number of bytes
    // behind the body. Chunk heads cannot be skipped.
    Result skip(std::uint64_t& n);

  private:
    enum class State : std::uint8_t {
        kSizeStart,
        kSize,
        kExtension,
        kSizeLineFeed,
        kData,
        kDataEnd,
        kDataLineFeed,
        kTrailerStart,
        kTrailer,
        kTrailerLineFeed,
    };
    Result readChunks(const char*& p, const char* end);
    Result readCounted(const char*& p, const char* end);
    bool readChunkByte(char c);
    bool readSizeByte(char c);
    void endSizeLine();

    std::uint64_t left_ = 0;  // bytes to the end of the body or of the chunk
    Framing framing_ = Framing::kNone;
    State state_ = State::kSizeStart;
    bool ended_ = false;  // the last line of the trailer has been read
};

}  // namespace tolvane
