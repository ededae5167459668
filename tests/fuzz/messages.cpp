// The readers of HTTP messages: what they find does not depend on how the input is
// split. The first byte of an input says which reader and seeds the splits.
#include <random>

#include "conversations.h"
#include "fuzzing.h"
#include "support/guarded_pages.h"

namespace tolvane::fuzz {
namespace {

void compare(std::string_view input) {
    static test::GuardedPages pages(1 << 20);
    Input rest(input);
    const unsigned seed = rest.take();
    const Bytes text = pages.put(rest.rest());
    const std::string_view whole{text.data, text.length};
    const auto read = [seed](const Parts& parts) {
        if (seed % 2 == 0) return readRequests(parts);
        return readResponses(parts, {Method::kOther, Method::kHead, Method::kConnect});
    };
    const Reading expected = read({whole});
    const auto bytes = cut(whole, [](std::size_t) -> std::size_t { return 1; });
    mustAgree(equal(expected, read(bytes), false), "byte by byte");
    std::minstd_rand random(seed);
    const auto parts = cut(whole, [&](std::size_t left) { return random() % left + 1; });
    mustAgree(equal(expected, read(parts), false), "in parts");
}

}  // namespace
}  // namespace tolvane::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tolvane::fuzz::compare(tolvane::fuzz::textOf(data, size));
    return 0;
}
