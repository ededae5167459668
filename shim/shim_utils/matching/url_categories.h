// Matches a request's URL to the URL categories of its site.
#pragma once

#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/slots/connection_slots.h"

namespace tolvane {

// The categories of site `s` whose patterns match `url`, as bits. The site exists.
std::uint32_t categoriesOf(const Configuration& config, int s, Bytes url);

// Stores the categories of site `request.siteIndex` that `url` matches, in
// ascending order. The site must exist.
void matchCategory(const Configuration& config, Bytes url, RequestInfo& request);

}  // namespace tolvane
