// Which Host headers the server answers. A web page of another site can reach the
// server under the page's own host name, when that name resolves to this machine (DNS
// rebinding), and would read the answers.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/listen_address.h"

namespace tolvane::agent {

class HostRule {
  public:
    // On loopback: localhost, addresses and the allowed names. On other addresses: the
    // same if names are allowed, else every host.
    HostRule(const ListenAddress& address, const std::vector<std::string>& allowed);

    // A request without the header does not come from a browser.
    bool accepts(const std::optional<std::string>& host) const;

  private:
    bool every_;
    std::vector<std::string> names_;
};

}  // namespace tolvane::agent
