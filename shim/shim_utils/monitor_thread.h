// The thread of a threaded server that publishes its slots.
#pragma once

namespace tolvane {

// Takes the segment's configuration, whatever its version, and starts the
// thread, with every signal blocked: the server's signals are for the server's
// threads. A failure is logged.
void startMonitor();

}  // namespace tolvane
