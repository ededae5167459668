#include "conversations.h"

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

}  // namespace

Reading readRequests(const Parts& parts) {
    using Event = RequestReader::Event;
    Reading reading;
    RequestReader reader;
    const auto texts = std::make_unique<RequestTexts>();
    for (const std::string_view part : parts) {
        const char* p = part.data();
        const char* const end = p + part.size();
        while (p != end && !reader.stopped()) {
            const Event event = reader.read(p, end, *texts);
            if (event == Event::kHead || event == Event::kMessage) {
                reading.heads.push_back(headOf(*texts));
            }
            if (event == Event::kEnd || event == Event::kMessage) ++reading.complete;
        }
    }
    reading.stopped = reader.stopped();
    return reading;
}

Reading readResponses(const Parts& parts, const std::vector<Method>& methods) {
    using Event = ResponseReader::Event;
    Reading reading;
    ResponseReader reader;
    for (const std::string_view part : parts) {
        const char* p = part.data();
        const char* const end = p + part.size();
        while (p != end && !reader.stopped()) {
            const std::size_t next = reading.complete;
            const Method method = next < methods.size() ? methods[next] : Method::kOther;
            const Event event = reader.read(p, end, method);
            if (event == Event::kHead || event == Event::kMessage) {
                reading.heads.push_back(std::to_string(reader.status()));
                if (reader.switchesProtocol(method)) reader.stop();
            }
            if (event == Event::kEnd || event == Event::kMessage) ++reading.complete;
        }
    }
    reading.stopped = reader.stopped();
    return reading;
}

}  // namespace tolvane::fuzz
