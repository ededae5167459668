// An HTTP/2 connection: both directions and the streams.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "shim_utils/http2/http2_reader.h"
#include "shim_utils/http2/stream_table.h"

namespace tolvane {

// Memory that was zeroed once, and then only used as this, can be reset for each
// connection at little cost. Value: what there is to know of a stream.
template <typename Value>
class Http2Connection {
  public:
    // The arguments are those of Http2Reader::reset.
    void reset(std::size_t prefaceBytes, bool upgraded) {
        requests_.reset(prefaceBytes, upgraded);
        responses_.reset(0, upgraded);
        streams.reset();
    }

    const Http2RequestReader& requests() const { return requests_; }
    const Http2ResponseReader& responses() const { return responses_; }

    // Each reads what one side sends, like the method of the reader.
    Http2Event readRequests(const char*& p, const char* end) {
        const Http2Event event = requests_.read(p, end);
        responses_.allowTable(requests_.announcedTable());
        return event;
    }
    Http2Event readResponses(const char*& p, const char* end) {
        const Http2Event event = responses_.read(p, end);
        requests_.allowTable(responses_.announcedTable());
        return event;
    }
    Http2Event skipRequests(std::uint64_t& n) { return requests_.skip(n); }
    Http2Event skipResponses(std::uint64_t& n) { return responses_.skip(n); }

    // Nothing that follows on the connection is HTTP/2.
    void stop() {
        requests_.stop();
        responses_.stop();
    }

  private:
    Http2RequestReader requests_;
    Http2ResponseReader responses_;

  public:
    StreamTable<Value> streams;
};

static_assert(sizeof(Http2Connection<std::array<std::int64_t, 2>>) <= 16 * 1024);

}  // namespace tolvane
