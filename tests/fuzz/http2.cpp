// The readers of HTTP/2: what they find does not depend on how the input is split. The
// first byte of an input says which reader and how it starts, the next seeds the splits.
#include <random>

#include "conversations.h"
#include "fuzzing.h"
#include "support/guarded_pages.h"
#include "support/http2_log.h"

namespace tolvane::fuzz {
namespace {

struct Start {
    std::size_t prefaceBytes;
    bool upgraded;
};

template <typename Fields>
std::string readParts(const Start& start, const Parts& parts) {
    test::Http2Log<Fields> log;
    log.reader->reset(start.prefaceBytes, start.upgraded);
    for (const std::string_view part : parts) log.read(part);
    return log.text();
}

template <typename Fields>
void compare(const Start& start, std::string_view text, unsigned seed) {
    static test::GuardedPages pages(1 << 20);
    const Bytes guarded = pages.put(text);
    const std::string_view whole{guarded.data, guarded.length};
    const std::string expected = readParts<Fields>(start, {whole});
    const auto byByte = cut(whole, [](std::size_t) { return std::size_t{1}; });
    mustAgree(expected == readParts<Fields>(start, byByte), "byte by byte");
    std::minstd_rand random(seed);
    const auto parts = cut(whole, [&](std::size_t left) { return random() % left + 1; });
    mustAgree(expected == readParts<Fields>(start, parts), "in parts");
}

}  // namespace
}  // namespace tolvane::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tolvane;
    fuzz::Input input(fuzz::textOf(data, size));
    const unsigned how = input.take();
    const unsigned seed = input.take();
    // Mostly behind the preface, which is hard to guess.
    const bool whole = (how & 4U) != 0;
    const fuzz::Start start = {whole ? 0 : sizeof kHttp2Preface - 1, (how & 2U) != 0};
    if ((how & 1U) == 0) {
        fuzz::compare<RequestFields>(start, input.rest(), seed);
    } else {
        fuzz::compare<ResponseFields>(start, input.rest(), seed);
    }
    return 0;
}
