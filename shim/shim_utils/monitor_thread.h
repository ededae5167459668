// The thread of a threaded server that publishes its slots.
#pragma once

namespace tolvane {

// Takes the segment's configuration, if there is one yet, and starts the
// thread, with every signal blocked: the server's signals are for the server's
// threads. A failure is logged.
void startMonitor();

// Sleeps as long as the configuration in force says. Without one, only until
// there is one; and of more than an hour, only until a newer configuration has
// been there for as long as that one says, so that a wrong interval does not
// stand for years.
void sleepUntilPublication();

}  // namespace tolvane
