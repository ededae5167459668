// The one log file that all processes of a server share.
#pragma once

namespace tolvane {

// Appends `text` to the log as one line with the local date and time. May be
// called from any thread, in a forked child and at any time; leaves errno
// alone. Without a log file, says so on standard error and drops the text.
void printErrorMsg(const char* text);

}  // namespace tolvane
