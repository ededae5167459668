// Reads the HTTP/1.x requests of a connection.
#pragma once

#include <cstdint>

#include "shim_utils/http/body_reader.h"
#include "shim_utils/http/field_reader.h"
#include "shim_utils/http/split_text.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

// What of a request the readers of its response have to know.
enum class Method : std::uint8_t {
    kOther,
    kHead,     // its response has no body
    kConnect,  // a successful response ends HTTP on the connection
};

// A longer target matches no category.
using TargetText = SplitText<8192>;

// The texts of the present request. They are apart from the reader since the
// target's buffer is seldom used.
struct RequestTexts {
    HostText host;
    TargetText target;
};

// Reads one request after the other, however they are split over the input and
// however many arrive at once. A zeroed object is ready for a new connection.
class RequestReader {
  public:
    enum class Event : std::uint8_t {
        kMore,     // `p` is `end`
        kHead,     // the head is complete, a body follows
        kMessage,  // the head is complete, there is no body
        kEnd,      // the body is complete
        kNotHttp,  // what follows cannot be read: so will every later call return
    };

    // Moves `p` behind what it has read, up to the first event.
    Event read(const char*& p, const char* end, RequestTexts& texts);

    // The same for `n` bytes of unknown content: `n` becomes the number of
    // bytes behind the event.
    Event skip(std::uint64_t& n);

    // Skips the empty lines that clients send between requests.
    void skipEmptyLines(const char*& p, const char* end) const;

    // Nothing that follows is HTTP/1.x.
    void stop() { state_ = State::kNotHttp; }
    bool stopped() const { return state_ == State::kNotHttp; }

    // Whether a request has begun and is not complete.
    bool begun() const { return state_ != State::kStart && state_ != State::kNotHttp; }
    // Whether its request line is complete.
    bool hasLine() const { return state_ == State::kFields || state_ == State::kBody; }

    Method method() const;

  private:
    enum class State : std::uint8_t {
        kStart,
        kMethod,
        kBeforeTarget,
        kTarget,
        kBeforeVersion,
        kVersion,
        kBehindVersion,
        kFields,
        kBody,
        kNotHttp,
    };
    bool readUsualLine(const char*& p, const char* end, TargetText& target);
    // Each reads at least one byte, from where `p` is not `end`. False: this is
    // no request.
    bool readLine(const char*& p, const char* end, RequestTexts& texts);
    bool readMethod(const char*& p, const char* end);
    bool readTarget(const char*& p, const char* end, TargetText& target);
    bool readVersion(const char*& p, const char* end);
    bool readBehindVersion(char c);
    Event beginBody();
    Event bodyEvent(BodyReader::Result result);

    FieldReader fields_;
    BodyReader body_;
    std::uint64_t methodText_ = 0;  // the last eight characters
    State state_ = State::kStart;
    std::uint8_t matched_ = 0;  // characters of the method or the version
};

// The parts of a request's target. In the absolute form the authority is the host.
struct Target {
    Bytes host;  // null in any other form
    Bytes url;
};
Target splitTarget(Bytes target);

}  // namespace tolvane
