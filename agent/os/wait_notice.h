// How a function that waits tells its caller what it waits for.
#pragma once

#include <functional>
#include <string_view>

namespace tolvane::agent {

// Called again and again while the wait lasts; may be empty.
using WaitNotice = std::function<void(std::string_view)>;

}  // namespace tolvane::agent
