// The response parser against a reader that goes byte by byte.
#include "fuzzing.h"
#include "plain_headers.h"
#include "shim_utils/http/request_parser.h"
#include "support/guarded_pages.h"

namespace tolvane::fuzz {
namespace {

void compare(std::string_view text) {
    static test::GuardedPages pages(1 << 20);
    const PlainResponse expected = readResponse(text);
    const Bytes written = pages.put(text);
    mustAgree(beginsWithStatusLine(written) == isStatusLine(text), "status line");
    const ResponseStatus found = parseHttpWriteHeader(written);
    mustAgree(found.status == expected.status, "status");
    mustAgree(found.overrideCode == expected.overrideCode, "override");
}

}  // namespace
}  // namespace tolvane::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tolvane::fuzz::compare(tolvane::fuzz::textOf(data, size));
    return 0;
}
