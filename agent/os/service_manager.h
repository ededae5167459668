// Word to the service manager that started us, if one did: the datagrams that
// systemd documents for its NOTIFY_SOCKET.
#pragma once

#include <string_view>

namespace tolvane::agent {

// "READY=1", "WATCHDOG=1", "STATUS=...". Nothing happens without a manager.
void tellServiceManager(std::string_view message);

}  // namespace tolvane::agent
