// Start of the measurement in the server process.
#pragma once

namespace tolvane {

// Creates the tables, the records, the segment and its semaphores, writes the
// files that describe them, and turns measurement on. Runs in the first listen
// call on a configured address. A failure is logged and leaves measurement off.
void initializeTolvaneShim();

}  // namespace tolvane
