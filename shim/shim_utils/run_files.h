// The two files that lead to a run's segment: the handoff file for the agent,
// and the previous-run record for the server's next start.
#pragma once

namespace tolvane {

// Removes the segment, semaphores and handoff file that the previous-run
// record names; never this run's own segment, nor one of another program.
void removeEarlierRun();

// Write this run's files; failures are logged.
void writePreviousRunRecord();
void writeHandoffFile();

// Deletes the handoff file named with this process's id.
void deleteHandoffFile();

}  // namespace tolvane
