// The request parser against a reader that goes byte by byte.
#include "fuzzing.h"
#include "plain_headers.h"
#include "shim_utils/http/request_parser.h"
#include "support/guarded_pages.h"

namespace tolvane::fuzz {
namespace {

bool same(Bytes found, Stretch expected, Bytes text) {
    if (expected.start < 0) return found.data == nullptr && found.length == 0;
    return found.data == text.data + expected.start &&
           found.length == static_cast<std::size_t>(expected.length);
}

void compare(std::string_view text) {
    static test::GuardedPages pages(1 << 20);
    const PlainRequest expected = readRequest(text);
    const Bytes received = pages.put(text);
    const HeadTexts found = parseHttpHeader(received);
    mustAgree(same(found.url, expected.url, received), "URL");
    mustAgree(same(found.host, expected.host, received), "Host value");
}

}  // namespace
}  // namespace tolvane::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tolvane::fuzz::compare(tolvane::fuzz::textOf(data, size));
    return 0;
}
