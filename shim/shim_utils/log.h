// The one log file that all processes of a server share.
#pragma once

namespace tolvane {

// Appends `text` to the log as one line with the local date and time. May be
// called from any thread, in a forked child and at any time; leaves errno
// alone. Without a log file, says so on standard error and drops the text.
void printErrorMsg(const char* text);

// To be called when the process's exit has begun: from then on the date comes
// from the offset from UTC that was known last. A server may exit from a signal
// handler, and then it may have interrupted the very conversion that we would
// wait for.
void logWithoutTimeConversion();

}  // namespace tolvane
