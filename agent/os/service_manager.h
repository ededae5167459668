// Messages to the service manager: the datagrams that systemd documents for
// NOTIFY_SOCKET.
#pragma once

#include <string_view>

namespace tolvane::agent {

// "READY=1", "WATCHDOG=1", "STATUS=...". Has no effect without a service manager.
void tellServiceManager(std::string_view message);

}  // namespace tolvane::agent
