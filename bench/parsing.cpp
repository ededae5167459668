// Parsing and matching against what one would use instead: llhttp for the
// request's two fields, Hyperscan and RE2::Set for its URL categories. Both
// sides are first compared on many inputs.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "browser_requests.h"
#include "fullest_configuration.h"
#include "header_parser.h"
#include "measured_rows.h"
#include "pattern_matchers.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/http/request_parser.h"
#include "shim_utils/matching/url_categories.h"

using namespace tolvane;
using namespace tolvane::bench;

namespace {

constexpr char kPlainUrl[] =
    "/catalogue/2026/autumn/index.html?page=4&sort=price&colour=blue&size=42&source=newsletter";

// Where results go, so that they are not left out.
volatile std::uintptr_t sink;

void consume(const void* pointer, std::size_t length) {
    sink = reinterpret_cast<std::uintptr_t>(pointer) + length;
}

// ------------------------------------------------------------------- parsing

std::string requests[4];

template <int i>
void parseOurs() {
    const HeadTexts fields = parseHttpHeader({requests[i].data(), requests[i].size()});
    consume(fields.host.data, fields.url.length);
}
template <int i>
void parseOther() {
    const ParsedFields fields = parseWithLlhttp(requests[i]);
    consume(fields.host.data(), fields.url.size());
}

template <int i>
void addParsing(const char* name, Browser browser, HostLine place) {
    requests[i] = browserRequest(browser, place, kLastHost, kPlainUrl);
    const HeadTexts ours = parseHttpHeader({requests[i].data(), requests[i].size()});
    const ParsedFields other = parseWithLlhttp(requests[i]);
    if (std::string_view(ours.url.data, ours.url.length) != other.url || other.url != kPlainUrl ||
        std::string_view(ours.host.data, ours.host.length) != other.host ||
        other.host != kLastHost) {
        fail("the parsers disagree");
    }
    addRatio({std::to_string(requests[i].size()) + " bytes of " + name,
              parseOurs<i>,
              {{"llhttp", parseOther<i>}}});
}

// ------------------------------------------------------------------ matching

// One configuration, prepared for all three.
struct Matchers {
    explicit Matchers(void (*fill)(ConfigInfo&)) : config(new Configuration()) {
        fill(config->info);
        prepareConfiguration(*config);
        site = config->info.numSites - 1;
        expressions = std::make_unique<Expressions>(config->info.categories[site]);
        hyperscan = std::make_unique<Hyperscan>(*expressions);
        re2 = std::make_unique<Re2Set>(*expressions);
    }

    std::uint32_t shimCategories(std::string_view url) const {
        RequestInfo request = {};
        request.siteIndex = site;
        matchCategory(*config, {url.data(), url.size()}, request);
        std::uint32_t categories = 0;
        for (int i = 0; i < request.numMatched; ++i) categories |= 1U << request.matched[i];
        return categories;
    }

    std::unique_ptr<Configuration> config;
    int site;
    std::unique_ptr<Expressions> expressions;
    std::unique_ptr<Hyperscan> hyperscan;
    std::unique_ptr<Re2Set> re2;
};

std::unique_ptr<Matchers> small;
std::unique_ptr<Matchers> usual;
std::unique_ptr<Matchers> fullest;
std::unique_ptr<Matchers> nested;
std::string plainUrl = kPlainUrl;
std::string matchingUrl = kMatchingUrl;
std::string longUrl = hostileUrl(8000);
std::string oftenBegun = repeated("/cart.", 8000);
std::string oneLetter = repeated("a", 8000);

// URLs put together from the patterns' own pieces, with and without something
// between them, so that many match and many nearly do.
std::string randomUrl(const Matchers& matchers, std::mt19937& dice) {
    const auto below = [&dice](std::size_t limit) { return static_cast<int>(dice() % limit); };
    const auto& categories = matchers.config->info.categories[matchers.site];
    const int numCategories = matchers.config->info.numCategories[matchers.site];
    std::string url = below(2) == 0 ? "" : "/x";
    for (int parts = 1 + below(3); parts > 0; --parts) {
        const CategoryConfig& category = categories[below(static_cast<std::size_t>(numCategories))];
        const UrlSection& section =
            category.sections[below(static_cast<std::size_t>(category.numSections))];
        for (int p = 0; p < section.numPieces; ++p) {
            if (below(8) != 0) url += section.piece[p];
            if (below(2) != 0) url += "/y";
        }
    }
    return url.empty() ? "/" : url;
}

void compare(const Matchers& matchers, const std::string& name) {
    std::mt19937 dice(20260101);
    int matched = 0;
    constexpr int kUrls = 20'000;
    for (int i = 0; i < kUrls; ++i) {
        const std::string url = randomUrl(matchers, dice);
        const std::uint32_t ours = matchers.shimCategories(url);
        if (ours != matchers.hyperscan->categories(url) || ours != matchers.re2->categories(url)) {
            fail("the matchers disagree on " + url);
        }
        matched += ours != 0;
    }
    std::printf("%s configuration: all three agree on %d URLs, of which %d match\n", name.c_str(),
                kUrls, matched);
    if (matched < kUrls / 10) fail("too few URLs match");
}

template <std::unique_ptr<Matchers>& matchers, const std::string& url>
void addMatching(const std::string& name) {
    addRatio({name,
              [] { sink = matchers->shimCategories(url); },
              {{"Hyperscan", [] { sink = matchers->hyperscan->categories(url); }},
               {"RE2::Set", [] { sink = matchers->re2->categories(url); }}}});
}

void addAllParsing() {
    addParsing<0>("Chrome, Host first", Browser::kChrome, HostLine::kFirst);
    addParsing<1>("Chrome, Host last", Browser::kChrome, HostLine::kLast);
    addParsing<2>("Firefox, Host first", Browser::kFirefox, HostLine::kFirst);
    addParsing<3>("Firefox, Host last", Browser::kFirefox, HostLine::kLast);
}

void addAllMatching() {
    small = std::make_unique<Matchers>(smallConfiguration);
    usual = std::make_unique<Matchers>(usualConfiguration);
    fullest = std::make_unique<Matchers>(fullestConfiguration);
    nested = std::make_unique<Matchers>(nestedConfiguration);
    compare(*small, "small");
    compare(*usual, "usual");
    compare(*fullest, "fullest");
    addMatching<small, plainUrl>("one pattern, no match");
    addMatching<usual, plainUrl>("90 usual patterns, one match");
    addMatching<fullest, plainUrl>("90 patterns of 6 pieces, no match");
    addMatching<fullest, matchingUrl>("90 patterns of 6 pieces, one match");
    addMatching<fullest, longUrl>("90 patterns of 6 pieces, 8,000 hostile bytes");
    addMatching<usual, oftenBegun>("90 usual patterns, 8,000 hostile bytes");
    addMatching<nested, oneLetter>("90 patterns with nested ends, 8,000 hostile bytes");
}

}  // namespace

// parsing requests|urls [--instructions]
int main(int argc, char** argv) {
    const std::string group = argc > 1 ? argv[1] : "";
    if (group == "requests") addAllParsing();
    if (group == "urls") addAllMatching();
    return runRows(group == "urls" ? "Matching" : "Parsing", argc - 1, argv + 1);
}
