// What is served under which path:
//   /             the page, and the files that it is made of
//   /metrics      for Prometheus
//   /api/servers  the totals, /api/history the last minutes; ?server=NAME: of one
//   /health       200 while all is well, 503 and what is wrong otherwise
#pragma once

#include <ctime>
#include <functional>
#include <string>

#include "collector/state.h"
#include "http/http_server.h"

namespace tolvane::agent {

// Calls what it is given with the state, while nothing changes; as
// Collector::read does.
using StateReader = std::function<void(const std::function<void(const CollectorState&)>&)>;

class Pages {
  public:
    // `version` is the program's.
    Pages(StateReader read, std::string version);

    HttpResponse answer(const HttpRequest& request, std::time_t now) const;

  private:
    StateReader read_;
    std::string version_;
};

// One line that says what is wrong; empty while all is well.
std::string complaintOf(const CollectorHealth& health, std::time_t now);

}  // namespace tolvane::agent
