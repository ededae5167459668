// The requests in flight on a connection, for the way of counting that reads HTTP
// messages.
#pragma once

#include <cstdint>

#include "shim_utils/http/request_reader.h"
#include "shim_utils/http/response_reader.h"
#include "shim_utils/http2/http2_connection.h"

namespace tolvane {

// The site and the categories that a message's bytes belong to.
struct Credit {
    std::int16_t site = -1;        // -1: none
    std::uint16_t categories = 0;  // bit c: category c of the site
};

// A request in flight: from its head to the end of its response.
struct Exchange {
    std::int64_t start = 0;  // nanoseconds of the monotonic clock at the request's first byte;
                             // 0 when it is in no category
    Credit credit;
    Method method = Method::kOther;
    bool answered = false;  // its response or its drop has been counted
};
static_assert(sizeof(Exchange) == 16);

// The exchanges of a connection in the order of their requests. Zeroed: empty.
class ExchangeQueue {
  public:
    static constexpr std::uint32_t kCapacity = 256;

    bool empty() const { return count_ == 0; }
    bool full() const { return count_ == kCapacity; }
    Exchange& front() { return items_[first_]; }
    // There is room.
    void push(const Exchange& exchange) { items_[(first_ + count_++) % kCapacity] = exchange; }
    // It is not empty. An empty queue starts at the same item again, so that a
    // connection without pipelining uses a single item.
    void pop() { first_ = --count_ == 0 ? 0 : (first_ + 1) % kCapacity; }
    // Also while another thread changes the queue, so `visit` may then see old items.
    template <typename Visit>
    void forEach(Visit visit) {
        const std::uint32_t first = first_;
        const std::uint32_t count = count_ < kCapacity ? count_ : kCapacity;
        for (std::uint32_t i = 0; i < count; ++i) visit(items_[(first + i) % kCapacity]);
    }

  private:
    std::uint32_t first_ = 0;
    std::uint32_t count_ = 0;
    Exchange items_[kCapacity];
};

// The Host value of a connection's last request and its site: most requests of a
// connection have the same.
struct LastHost {
    std::int32_t version;  // of the configuration that has the site
    std::int16_t site;
    std::uint16_t length;  // 0: no host
    char text[56];
};
static_assert(sizeof(LastHost) == 64);

// What a connection carries, as far as its bytes have said.
enum class Protocol : std::uint8_t {
    kUnknown,  // a part of HTTP/2's preface, or nothing
    kHttp1,    // HTTP/1.x or anything else
    kHttp2,
    kUpgraded,  // read as HTTP/2 behind a 101 response, and perhaps another protocol
};

// The messages of the connection that holds a slot. Written and read by the
// thread that serves the connection. Zeroed memory is a valid state.
struct ConnectionMessages {
    RequestReader requests;
    ResponseReader responses;

    // The request that is being received.
    std::int64_t requestStart;      // like Exchange::start, 0: not yet known
    std::int64_t responseStart;     // the same of the response that is being sent
    std::uint64_t uncreditedBytes;  // received before the request's site is known
    Credit receiving;
    bool admitted;            // the request has been counted and has got an exchange
    bool answers;             // the response that is being sent belongs to the first exchange
    std::int16_t firstSite;   // the site that counted the connection, -1: no site yet
    std::int32_t descriptor;  // of the connection, -1: its messages are not read
    // The TLS object whose plaintext is read, null without. Compared only.
    const void* tlsObject;
    Protocol protocol;
    std::uint8_t prefaceBytes;  // of HTTP/2's preface that have arrived while it is unknown
    bool receivedWire;          // bytes of an SSL connection have arrived
    bool reported;              // a program outside the shim has reported a request on it
    LastHost lastHost;

    // HTTP/1.x and HTTP/2. Pages that are not used are not allocated.
    ExchangeQueue exchanges;
    RequestTexts texts;
    Http2Connection<Exchange> http2;
};

}  // namespace tolvane
