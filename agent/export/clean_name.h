// Names of servers, sites and categories on their way out. They come from
// shared memory and handoff files, where any byte may stand.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace tolvane::agent {

// As the tool prints it, and always valid UTF-8, which both Prometheus and JSON
// insist on.
std::string cleanName(std::string_view name);

// Names side by side. Two that differ only in what cannot be shown must not
// become one, since they would be the same series twice.
class CleanNames {
  public:
    // The clean name, with a '~' for every time that it was there already.
    std::string add(std::string_view name);

  private:
    std::set<std::string> taken_;
};

}  // namespace tolvane::agent
