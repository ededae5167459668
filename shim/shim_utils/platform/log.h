// The log file, which all measured processes share.
#pragma once

namespace tolvane {

// Appends `text` to the log as one line with the local date and time. Callable at
// any time, from any thread and in a forked child; preserves errno. If there is no
// log file, reports that on standard error and drops the text.
void printErrorMsg(const char* text);

}  // namespace tolvane
