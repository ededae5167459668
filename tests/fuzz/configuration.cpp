// A configuration block that anybody may have written: how it is bounded, and
// what is matched against it, compared with plain forms of both. An input is
// the block, and then Host values and URLs as long as there are bytes.
#include "shim_utils/configuration/configuration.h"

#include <algorithm>

#include "block_decoder.h"
#include "plain_bounds.h"
#include "shim_utils/matching/site_match.h"
#include "shim_utils/matching/url_categories.h"
#include "support/guarded_pages.h"
#include "support/plain_matching.h"

namespace tolvane::fuzz {
namespace {

void compareHost(Input& input, const Configuration& config, test::GuardedPages& pages) {
    const std::string& host = decodeHost(input, config.info);
    const Bytes text = pages.put(host);
    for (const ConnectionKind kind : {kPlainRequest, kReportedRequest}) {
        mustAgree(getMatchWebSite(config, text, kind) == test::plainSite(config.info, host, kind),
                  "site");
    }
}

void compareUrl(Input& input, const Configuration& config, test::GuardedPages& pages) {
    const std::string& url = decodeUrl(input, config.info);
    const Bytes text = pages.put(url);
    for (int s = 0; s < config.info.numSites; ++s) {
        RequestInfo request = {};
        request.siteIndex = s;
        matchCategory(config, text, request);
        const std::vector<int> expected = test::plainCategories(config.info, url, s);
        mustAgree(std::equal(request.matched, request.matched + request.numMatched,
                             expected.begin(), expected.end()),
                  "categories");
    }
}

Configuration config;
ConfigInfo expected;

void compare(Input input) {
    static test::GuardedPages pages(1 << 20);
    Input again = input;
    decodeBlock(again, expected);
    decodeBlock(input, config.info);

    const bool changed = boundPlainly(expected);
    Text<512> report;
    boundConfiguration(config.info, report);
    mustAgree((report.length() > 0) == changed, "report");
    mustAgree(sameAsFarAsUsed(config.info, expected), "bounded block");

    prepareConfiguration(config);
    while (!input.empty()) {
        if (input.take() % 4 == 0) {
            compareHost(input, config, pages);
        } else {
            compareUrl(input, config, pages);
        }
    }
    clearBlock(config.info);
    clearBlock(expected);
}

}  // namespace
}  // namespace tolvane::fuzz

int LLVMFuzzerInitialize(int*, char***) {
    tolvane::fuzz::labelBlock(tolvane::fuzz::config.info);
    tolvane::fuzz::labelBlock(tolvane::fuzz::expected);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tolvane::fuzz::compare(tolvane::fuzz::Input(tolvane::fuzz::textOf(data, size)));
    return 0;
}
