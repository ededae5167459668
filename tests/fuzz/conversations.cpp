#include "conversations.h"

#include <algorithm>
#include <memory>

#include "shim_utils/http/response_reader.h"

namespace tolvane::fuzz {
namespace {

std::string textOf(Bytes bytes) {
    return bytes.length == 0 ? "-" : std::string(bytes.data, bytes.length);
}

std::string headOf(const RequestTexts& texts) {
    return textOf(texts.target.text()) + " " + textOf(texts.host.text());
}

// Passes the parts to `readPart(p, end)`, up to the stop. It reads up to an event that
// it adds, or to `end`, and returns whether the reading goes on.
template <typename ReadPart>
Reading readParts(const Parts& parts, ReadPart readPart) {
    Reading reading;
    for (const std::string_view part : parts) {
        const char* p = part.data();
        const char* const end = p + part.size();
        while (p != end) {
            const std::size_t known = reading.events.size();
            reading.stopped = !readPart(p, end, reading.events);
            const auto offset = reading.stoppedAt + static_cast<std::size_t>(p - part.data());
            for (std::size_t i = known; i < reading.events.size(); ++i) {
                reading.events[i].offset = offset;
            }
            if (reading.stopped) return reading;
        }
        reading.stoppedAt += part.size();
    }
    return reading;
}

}  // namespace

bool equal(const Reading& one, const Reading& other, bool offsets) {
    const auto equalEvents = [offsets](const Reading::Event& a, const Reading::Event& b) {
        return a.what == b.what && (a.offset == b.offset || (!offsets && a.what != "end"));
    };
    return one.stopped == other.stopped &&
           std::ranges::equal(one.events, other.events, equalEvents);
}

Reading readRequests(const Parts& parts) {
    using Event = RequestReader::Event;
    RequestReader reader;
    const auto texts = std::make_unique<RequestTexts>();
    return readParts(parts, [&](const char*& p, const char* end, auto& events) {
        const Event event = reader.read(p, end, *texts);
        if (event == Event::kHead || event == Event::kMessage) events.push_back({headOf(*texts)});
        if (event == Event::kEnd || event == Event::kMessage) events.push_back({"end"});
        return !reader.stopped();
    });
}

Reading readResponses(const Parts& parts, const std::vector<Method>& methods) {
    using Event = ResponseReader::Event;
    ResponseReader reader;
    std::size_t next = 0;
    return readParts(parts, [&](const char*& p, const char* end, auto& events) {
        const Method method = next < methods.size() ? methods[next] : Method::kOther;
        const Event event = reader.read(p, end, method);
        if (event == Event::kHead || event == Event::kMessage) {
            events.push_back({std::to_string(reader.status())});
            if (reader.switchesProtocol(method)) reader.stop();
        }
        if (event == Event::kEnd || event == Event::kMessage) {
            events.push_back({"end"});
            ++next;
        }
        return !reader.stopped();
    });
}

}  // namespace tolvane::fuzz
