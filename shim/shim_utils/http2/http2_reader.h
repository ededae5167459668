// Reads the frames of an HTTP/2 connection.
#pragma once

#include <cstddef>
#include <cstdint>

#include "shim_utils/http2/header_decoder.h"

namespace tolvane {

// What a client sends first.
inline constexpr char kHttp2Preface[] = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

enum class Http2Event : std::uint8_t {
    kMore,      // `p` is `end`
    kRequest,   // the header block of a request on a new stream is complete
    kResponse,  // the header block of a final response is complete
    kInterim,   // the same of an interim response (1xx); the final one follows
    kTrailers,  // any other header block is complete
    kData,      // bytes of a body
    kReset,     // the stream has ended
    kGoAway,    // streams with higher numbers than this will not be processed
    kNotHttp2,  // what follows cannot be read: so will every later call return
};

// Reads what one side sends, however it is split over the input. Fields decide the
// direction.
//
// The heads and the content, padding included, of the frames HEADERS, CONTINUATION and
// DATA are bytes of their stream; all else is bytes of the connection.
template <typename Fields>
class Http2Reader {
  public:
    // Ready for a new connection. The HTTP/1 reader may have read the first bytes of a
    // client's preface. `upgraded`: the first request was one of HTTP/1, and is stream 1.
    void reset(std::size_t prefaceBytes, bool upgraded);

    // Moves `p` behind what it has read, up to the first event.
    Http2Event read(const char*& p, const char* end);

    // The same for `n` bytes of unknown content: `n` becomes the number of bytes
    // behind the event.
    Http2Event skip(std::uint64_t& n);

    // Nothing that follows is HTTP/2.
    void stop() { state_ = State::kNotHttp2; }
    bool stopped() const { return state_ == State::kNotHttp2; }

    // Of the last event: its stream; the bytes of the stream that belong to it, which
    // of a header block are all at once; whether this side of the stream has ended.
    std::uint32_t stream() const { return eventStream_; }
    std::uint32_t bytes() const { return eventBytes_; }
    bool endsStream() const { return eventEnds_; }

    // Whether a header block has begun and is not complete.
    bool inHeaders() const { return blockStream_ != 0; }

    // The fields of the last header block.
    const Fields& fields() const { return decoder_.fields(); }

    // The largest header table that this side has announced: what the other side sends
    // may need it.
    std::uint32_t announcedTable() const { return announcedTable_; }
    void allowTable(std::uint32_t size) { decoder_.allowTable(size); }

  private:
    enum class State : std::uint8_t {
        kPreface,
        kFrameHead,
        kBlockPrefix,
        kBlock,
        kData,
        kSettings,
        kReset,
        kGoAway,
        kSkipped,
        kNotHttp2,
    };
    // Each reads on in its state. kMore: at the end of the input or of the state.
    Http2Event readState(const char*& p, const char* end);
    Http2Event readPreface(const char*& p, const char* end);
    Http2Event readFrameHead(const char*& p, const char* end);
    Http2Event readBlockPrefix(const char*& p, const char* end);
    Http2Event readBlock(const char*& p, const char* end);
    Http2Event readSettings(const char*& p, const char* end);
    Http2Event readReset(const char*& p, const char* end);
    Http2Event readGoAway(const char*& p, const char* end);
    Http2Event skipData(std::uint32_t n);
    Http2Event skipOther(std::uint32_t n);
    Http2Event notHttp2();

    // Each begins a frame. False: there can be no such frame.
    bool beginFrame();
    bool beginData();
    bool beginHeaders(std::uint32_t prefix);
    bool beginContinuation();
    bool beginOther();

    Http2Event endBlockFrame();
    Http2Event blockEvent(std::uint32_t stream);
    Http2Event event(Http2Event event, std::uint32_t stream, std::uint32_t bytes, bool ends);

    std::uint32_t ofFrame(const char* p, const char* end) const;
    bool gather(std::uint32_t count, const char*& p, const char* end);
    bool gatherContent(std::uint32_t count, const char*& p, const char* end);
    std::uint32_t number(std::uint32_t from, std::uint32_t count) const;
    bool flag(std::uint8_t bit) const { return (flags_ & bit) != 0; }

    State state_;
    bool begun_;          // the first frame has been read
    bool blockEnds_;      // the header block ends its stream
    bool blockPromises_;  // it is of a request that the server makes up
    bool eventEnds_;
    std::uint8_t type_;  // of the present frame
    std::uint8_t flags_;
    std::uint8_t padding_;
    std::uint8_t gatheredBytes_;
    char gathered_[9];
    std::uint32_t left_;    // bytes of the frame
    std::uint32_t prefix_;  // bytes before the frame's part of a header block
    std::uint32_t frameStream_;
    std::uint32_t unreported_;   // bytes of the stream that no event has had
    std::uint32_t blockStream_;  // 0: no header block has begun
    std::uint32_t lastStream_;   // the highest with a request
    std::uint32_t announcedTable_;
    std::uint32_t eventStream_;
    std::uint32_t eventBytes_;
    HeaderDecoder<Fields> decoder_;
};

using Http2RequestReader = Http2Reader<RequestFields>;
using Http2ResponseReader = Http2Reader<ResponseFields>;
extern template class Http2Reader<RequestFields>;
extern template class Http2Reader<ResponseFields>;

}  // namespace tolvane
