// Reads the HTTP/1.x responses of a connection.
#pragma once

#include <cstdint>

#include "shim_utils/http/body_reader.h"
#include "shim_utils/http/field_reader.h"
#include "shim_utils/http/request_reader.h"

namespace tolvane {

// Reads one response after the other, however they are split over the input and
// however many arrive at once. A zeroed object is ready for a new connection.
class ResponseReader {
  public:
    enum class Event : std::uint8_t {
        kMore,     // `p` is `end`
        kInterim,  // an interim response (1xx) is complete; the final one follows
        kHead,     // the head of the final response is complete, the body is not
        kMessage,  // the final response is complete, and no event told of its head
        kEnd,      // the body is complete
        kNotHttp,  // what follows cannot be read: so will every later call return
    };

    // Moves `p` behind what it has read, up to the first event. `method`: of the
    // request that is answered.
    Event read(const char*& p, const char* end, Method method);

    // The same for `n` bytes of unknown content: `n` becomes the number of
    // bytes behind the event.
    Event skip(std::uint64_t& n);

    // Nothing that follows is HTTP/1.x.
    void stop() { state_ = State::kNotHttp; }
    bool stopped() const { return state_ == State::kNotHttp; }

    // Whether a response has begun and is not complete.
    bool begun() const { return state_ != State::kStart && state_ != State::kNotHttp; }

    // The status code of the last event's response, or of the present response once
    // it has a final status. A Tv-Status field replaces the code of the status line.
    int status() const;
    // Whether the present response has a status that is final.
    bool hasFinalStatus() const;
    // Whether the response is 101, and the connection goes on in HTTP/2.
    bool upgradesToHttp2() const {
        return status_ == kSwitchingProtocols && fields_.upgradesToHttp2();
    }
    // Whether after a response to `method` the connection carries another protocol.
    bool switchesProtocol(Method method) const;

  private:
    enum class State : std::uint8_t {
        kStart,
        kVersion,
        kBeforeStatus,
        kStatus,
        kReason,
        kFields,
        kBody,
        kNotHttp,
    };
    // Each reads at least one byte, from where `p` is not `end`. False: this is
    // no response.
    bool readLine(const char*& p, const char* end);
    bool readVersion(const char*& p, const char* end);
    bool readBeforeStatus(const char*& p);
    bool readStatus(char c);
    Event beginBody(Method method);
    Event endHead(Event event, const char*& p, const char* end);
    Event bodyEvent(BodyReader::Result result);
    bool interim() const { return status_ < 200 && status_ != kSwitchingProtocols; }

    static constexpr int kSwitchingProtocols = 101;

    FieldReader fields_;
    BodyReader body_;
    State state_ = State::kStart;
    std::uint8_t matched_ = 0;  // characters of the version, digits of the status
    std::int16_t status_ = 0;   // of the status line, as far as it has been read
};

}  // namespace tolvane
