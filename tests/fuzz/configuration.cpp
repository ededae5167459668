// A configuration block that anybody may have written: how it is bounded, and
// what is matched against it, compared with plain forms of both. An input is
// the block, and then Host values and URLs as long as there are bytes.
#include "shim_utils/configuration/configuration.h"

#include <algorithm>
#include <cstring>

#include "block_decoder.h"
#include "shim_utils/matching/site_match.h"
#include "shim_utils/matching/url_categories.h"
#include "support/guarded_pages.h"
#include "support/plain_matching.h"

namespace tolvane::fuzz {
namespace {

// The block within the capacities of the format, as plainly as possible.
class PlainBounds {
  public:
    // Whether anything was out of range.
    bool apply(ConfigInfo& block) {
        count(block.numSites, kMaxSites);
        for (int s = 0; s < block.numSites; ++s) {
            end(block.siteName[s]);
            count(block.numHosts[s], kMaxExtraHosts);
            for (int h = 0; h < block.numHosts[s]; ++h) end(block.hostName[s][h]);
            count(block.numCategories[s], kMaxCategories);
            for (int c = 0; c < block.numCategories[s]; ++c) {
                CategoryConfig& category = block.categories[s][c];
                count(category.numSections, kMaxSections);
                for (int k = 0; k < category.numSections; ++k) section(category.sections[k]);
            }
        }
        return changed_;
    }

  private:
    void section(UrlSection& section) {
        count(section.numPieces, kMaxPieces);
        for (int p = 0; p < section.numPieces; ++p) {
            end(section.piece[p]);
            count(section.pieceLength[p], kPieceSize - 1);
        }
    }
    void count(std::int32_t& value, std::int32_t limit) {
        const std::int32_t bounded = std::clamp(value, 0, limit);
        changed_ = changed_ || bounded != value;
        value = bounded;
    }
    template <std::size_t kSize>
    void end(char (&text)[kSize]) {
        if (strnlen(text, kSize) < kSize) return;
        text[kSize - 1] = '\0';
        changed_ = true;
    }

    bool changed_ = false;
};

// Whether two bounded blocks hold the same, as far as their counts go.
bool same(const ConfigInfo& a, const ConfigInfo& b) {
    if (std::memcmp(&a, &b, offsetof(ConfigInfo, categories)) != 0) return false;
    for (int s = 0; s < a.numSites; ++s) {
        const auto used = static_cast<std::size_t>(a.numCategories[s]) * sizeof(CategoryConfig);
        if (std::memcmp(a.categories[s], b.categories[s], used) != 0) return false;
    }
    return std::memcmp(a.siteName, b.siteName, sizeof a - offsetof(ConfigInfo, siteName)) == 0;
}

void compareHost(Input& input, const Configuration& config, test::GuardedPages& pages) {
    const std::string host = decodeHost(input, config.info);
    for (const ConnectionKind kind : {kPlainRequest, kReportedRequest}) {
        mustAgree(getMatchWebSite(config, pages.put(host), kind) ==
                      test::plainSite(config.info, host, kind),
                  "site");
    }
}

void compareUrl(Input& input, const Configuration& config, test::GuardedPages& pages) {
    const std::string url = decodeUrl(input, config.info);
    for (int s = 0; s < config.info.numSites; ++s) {
        RequestInfo request = {};
        request.siteIndex = s;
        matchCategory(config, pages.put(url), request);
        const std::vector<int> expected = test::plainCategories(config.info, url, s);
        mustAgree(std::equal(request.matched, request.matched + request.numMatched,
                             expected.begin(), expected.end()),
                  "categories");
    }
}

void compare(Input input) {
    static Configuration config;
    static ConfigInfo expected;
    static test::GuardedPages pages(1 << 20);
    Input again = input;
    decodeBlock(again, expected);
    decodeBlock(input, config.info);

    const bool changed = PlainBounds().apply(expected);
    Text<512> report;
    boundConfiguration(config.info, report);
    mustAgree((report.length() > 0) == changed, "report");
    mustAgree(same(config.info, expected), "bounded block");

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

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tolvane::fuzz::compare(tolvane::fuzz::Input(tolvane::fuzz::textOf(data, size)));
    return 0;
}
