// Matches a request's URL to the URL categories of its site.
#pragma once

#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/text.h"
#include "shim_utils/slots/connection_slots.h"

namespace tolvane {

// Stores the categories of site `request.siteIndex` that `url` matches, in
// ascending order. The site must exist.
void matchCategory(const Configuration& config, Bytes url, RequestInfo& request);

}  // namespace tolvane
