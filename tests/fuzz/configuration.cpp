// The bounds of a hostile configuration block, and the matching against it,
// compared with plain forms of both. An input is
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

// Bounds a block as plainly as possible.
class PlainBounds {
  public:
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
        if (std::find(text, text + kSize, '\0') != text + kSize) return;
        text[kSize - 1] = '\0';
        changed_ = true;
    }

    bool changed_ = false;
};

template <typename Part>
bool sameBytes(const Part& a, const Part& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Whether two bounded blocks hold the same, as far as their counts go.
bool sameAsFarAsUsed(const ConfigInfo& a, const ConfigInfo& b) {
    if (a.numSites != b.numSites || !sameBytes(a.numCategories, b.numCategories) ||
        !sameBytes(a.numHosts, b.numHosts) || a.version != b.version || a.interval != b.interval) {
        return false;
    }
    for (int s = 0; s < a.numSites; ++s) {
        for (int c = 0; c < a.numCategories[s]; ++c) {
            if (!sameBytes(a.categories[s][c], b.categories[s][c])) return false;
        }
    }
    return sameBytes(a.siteName, b.siteName) && sameBytes(a.hostName, b.hostName) &&
           a.parentPid == b.parentPid;
}

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

    const bool changed = PlainBounds().apply(expected);
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
}

}  // namespace
}  // namespace tolvane::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tolvane::fuzz::compare(tolvane::fuzz::Input(tolvane::fuzz::textOf(data, size)));
    return 0;
}
