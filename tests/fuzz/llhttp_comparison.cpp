// llhttp_comparison [CONVERSATIONS [SEED]]: compares the message readers with llhttp on
// random conversations that are split at random. Prints in how many texts each
// explained difference occurred. The first unexplained difference ends the run with
// status 1.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>

#include "llhttp_reading.h"
#include "random_conversation.h"

namespace tolvane::fuzz {
namespace {

struct Totals {
    long messages = 0;    // heads that the readers found
    long withoutAny = 0;  // texts without any difference
    long cut = 0;         // texts of which a part is not HTTP, or cannot be framed
    std::map<std::string, long> differences;
};

std::string printable(std::string_view text) {
    std::string printed;
    for (const char c : text) {
        char code[8] = {c};
        const auto byte = static_cast<unsigned char>(c);
        if (std::isprint(byte) == 0 && c != '\n') std::snprintf(code, sizeof code, "\\x%02x", byte);
        printed += code;
    }
    return printed;
}

std::string describe(const Reading& reading) {
    std::string text;
    for (const auto& event : reading.events) {
        text += " [" + event.what + "] " + std::to_string(event.offset);
    }
    return text + (reading.stopped ? ", stopped at " + std::to_string(reading.stoppedAt) : "");
}

void fail(std::string_view text, const Reading& byByte, const Reading& inParts,
          const LlhttpReading& theirs) {
    std::printf("%s\nbyte by byte:%s\nin parts:%s\nllhttp:%s %s\n", printable(text).c_str(),
                printable(describe(byByte)).c_str(), printable(describe(inParts)).c_str(),
                printable(describe(theirs.reading)).c_str(), theirs.error.c_str());
    for (const std::string& difference : theirs.differences) std::puts(difference.c_str());
    std::exit(1);
}

// `read` is the reader.
template <typename Read>
void compare(std::string_view text, const LlhttpReading& theirs, std::mt19937_64& random,
             Totals& totals, Read read) {
    const Reading byByte = read(cut(text, [](std::size_t) -> std::size_t { return 1; }));
    const bool whole = random() % 4 == 0;
    const Reading inParts =
        read(cut(text, [&](std::size_t left) { return whole ? left : random() % left + 1; }));
    if (!equal(byByte, inParts, false) || !equal(byByte, theirs.reading, true))
        fail(text, byByte, inParts, theirs);
    for (const std::string& difference : theirs.differences) ++totals.differences[difference];
    totals.messages +=
        std::ranges::count_if(byByte.events, [](const auto& event) { return event.what != "end"; });
    if (theirs.differences.empty()) ++totals.withoutAny;
    if (byByte.stopped) ++totals.cut;
}

Totals converse(long conversations, std::mt19937_64& random) {
    Totals totals;
    for (long i = 0; i < conversations; ++i) {
        const Conversation each = randomConversation(random);
        compare(each.requests, readRequestsWithLlhttp(each.requests), random, totals,
                [](const Parts& parts) { return readRequests(parts); });
        compare(each.responses, readResponsesWithLlhttp(each.responses, each.methods), random,
                totals, [&](const Parts& parts) { return readResponses(parts, each.methods); });
    }
    return totals;
}

}  // namespace
}  // namespace tolvane::fuzz

int main(int count, char** arguments) {
    const long conversations = count > 1 ? std::atol(arguments[1]) : 1'000'000;
    std::mt19937_64 random(count > 2 ? std::strtoull(arguments[2], nullptr, 10) : 1);
    const tolvane::fuzz::Totals totals = tolvane::fuzz::converse(conversations, random);
    std::printf("%ld conversations, %ld messages, %ld of %ld texts without a difference, %ld cut\n",
                conversations, totals.messages, totals.withoutAny, 2 * conversations, totals.cut);
    for (const auto& [what, texts] : totals.differences) {
        std::printf("%10ld  %s\n", texts, what.c_str());
    }
}
