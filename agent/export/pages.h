// The paths of the HTTP server:
//   /             the page and its files
//   /metrics      for Prometheus
//   /api/servers  the totals; /api/history the last minutes; ?server=NAME: of one
//   /health       200, or 503 and the reason
#pragma once

#include <ctime>
#include <functional>
#include <string>

#include "collector/state.h"
#include "http/http_server.h"

namespace tolvane::agent {

// Calls its argument with the state while the state does not change, as
// Collector::read does.
using StateReader = std::function<void(const std::function<void(const CollectorState&)>&)>;

class Pages {
  public:
    // `version` is the version of the program.
    Pages(StateReader read, std::string version);

    HttpResponse answer(const HttpRequest& request, std::time_t now) const;

  private:
    StateReader read_;
    std::string version_;
};

// The fault in one line; empty if the collector works.
std::string complaintOf(const CollectorHealth& health, std::time_t now);

}  // namespace tolvane::agent
