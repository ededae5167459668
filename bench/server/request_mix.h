// The requests that a client sends in turn, with the headers of a browser.
#pragma once

#include <string>
#include <vector>

namespace tolvane::bench {

// One request per line of the file: "HOST PATH", and "cached" behind it when
// the client asks only for what is newer than its own copy. Throws
// std::runtime_error when there is none.
std::vector<std::string> readRequestMix(const std::string& path, bool keepAlive);

}  // namespace tolvane::bench
