// The callback with which a waiting function reports the reason of its wait.
#pragma once

#include <functional>
#include <string_view>

namespace tolvane::agent {

// Called repeatedly during the wait; may be empty.
using WaitNotice = std::function<void(std::string_view)>;

}  // namespace tolvane::agent
