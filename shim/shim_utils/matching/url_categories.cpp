#include "shim_utils/matching/url_categories.h"

#include <bit>

namespace tolvane {

std::uint32_t categoriesOf(const Configuration& config, int s, Bytes url) {
    if (url.data == nullptr || url.length == 0) return 0;
    // The URL counts as a string: a NUL in it is its end.
    url.length = positionOf('\0', url.data, url.length);
    return findPatterns(config.patterns, config.info, s, url);
}

void matchCategory(const Configuration& config, Bytes url, RequestInfo& request) {
    request.numMatched = 0;
    std::uint32_t categories = categoriesOf(config, request.siteIndex, url);
    for (; categories != 0; categories &= categories - 1) {
        request.matched[request.numMatched++] = std::countr_zero(categories);
    }
}

}  // namespace tolvane
