// The thread of a threaded server that publishes its slots.
#pragma once

namespace tolvane {

// Starts it, with every signal blocked: the server's signals are for the
// server's threads. A failure is logged.
void startMonitor();

}  // namespace tolvane
