// Matches a request's URL to the URL categories of its site.
#pragma once

#include "configuration.h"
#include "text.h"
#include "tolvane/connection_slots.h"

namespace tolvane {

// Stores the categories of site `request.siteIndex` that `url` falls in, in
// ascending order. The site exists.
void matchCategory(const Configuration& config, Bytes url, RequestInfo& request);

}  // namespace tolvane
