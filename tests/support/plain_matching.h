// The matching of Host values and URLs against a configuration, as plainly as
// possible: name by name and pattern by pattern.
#pragma once

#include <string_view>
#include <vector>

#include "shim_utils/matching/site_match.h"
#include "tolvane/segment_format.h"

namespace tolvane::test {

// Whether the configured name means the site that the Host value asks for.
bool plainHostMatch(std::string_view host, std::string_view name, ConnectionKind kind);

// The first site with such a name; -1: no site. `config` is bounded, and `host`
// holds no NUL.
int plainSite(const ConfigInfo& config, std::string_view host, ConnectionKind kind);

// The categories of the site that `url` falls in. `config` is bounded.
std::vector<int> plainCategories(const ConfigInfo& config, std::string_view url, int site);

}  // namespace tolvane::test
