// Matches a request's Host value to the configured web sites.
#pragma once

#include "shim_utils/configuration/configuration.h"
#include "shim_utils/platform/text.h"

namespace tolvane {

// The kind of connection determines the default port.
enum ConnectionKind : int {
    kReportedRequest = 1,  // SSL, ":443"
    kPlainRequest = 2,     // ":80"
};

// Index of the first site that has the name `host`; -1 if no site has it.
int getMatchWebSite(const Configuration& config, Bytes host, ConnectionKind kind);

}  // namespace tolvane
