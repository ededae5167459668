// What the message readers find in a conversation that arrives in parts, and where.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "shim_utils/http/request_reader.h"

namespace tolvane::fuzz {

struct Reading {
    struct Event {
        std::string what;  // head of a request "TARGET HOST", of a response its status; or "end"
        std::size_t offset = 0;  // of the byte behind it
    };
    std::vector<Event> events;
    bool stopped = false;       // the rest is not HTTP/1.x, or cannot be framed
    std::size_t stoppedAt = 0;  // offset of the part with which the reading stopped
};

// Whether both readings found the same. `offsets`: the offsets of heads count as well.
// Otherwise they do not, since a response is a single event where all of it is in one part.
bool equal(const Reading& one, const Reading& other, bool offsets);

using Parts = std::vector<std::string_view>;

// The requests of a client.
Reading readRequests(const Parts& parts);

// The final responses of a server, to one request of each method in turn, and to
// requests of another method behind them. A response that ends HTTP on the connection
// stops the reading.
Reading readResponses(const Parts& parts, const std::vector<Method>& methods);

// Cuts `text` into parts whose lengths `random` gives, each from 1 to the
// given number.
template <typename Random>
Parts cut(std::string_view text, Random random) {
    Parts parts;
    while (!text.empty()) {
        parts.push_back(text.substr(0, static_cast<std::size_t>(random(text.size()))));
        text.remove_prefix(parts.back().size());
    }
    return parts;
}

}  // namespace tolvane::fuzz
