// Turning the measurement on in the server process.
#pragma once

namespace tolvane {

// Makes the tables, the records, the segment and its semaphores, writes the
// files that lead to them, and turns measurement on. Runs in the first listen
// on one of the server's own addresses; any failure is logged and leaves
// measurement off.
void initializeTolvaneShim();

}  // namespace tolvane
