#include "shim_utils/matching/url_categories.h"

#include <bit>

namespace tolvane {
void matchCategory(const Configuration& config, Bytes url, RequestInfo& request) {
    request.numMatched = 0;
    if (url.data == nullptr || url.length == 0) return;
    // A NUL ends the URL.
    url.length = positionOf('\0', url.data, url.length);

    const int s = request.siteIndex;
    std::uint32_t categories = findPatterns(config.patterns, config.info, s, url);
    for (; categories != 0; categories &= categories - 1) {
        request.matched[request.numMatched++] = std::countr_zero(categories);
    }
}

}  // namespace tolvane
