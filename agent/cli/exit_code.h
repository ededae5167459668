// Exit codes of every command; scripts rely on them.
#pragma once

#include "os/error.h"

namespace tolvane::agent {

enum ExitCode : int {
    kExitOk = 0,
    kExitFinding = 1,   // done, and there is something to know: no server, a problem found
    kExitBadInput = 2,  // wrong usage or a file that is not valid; nothing was changed
    kExitFailed = 3,    // the system refused, or the server went away
};

inline ExitCode exitCodeOf(const Error& error) {
    switch (error.kind()) {
        case ErrorKind::kNotFound:
            return kExitFinding;
        case ErrorKind::kInvalidInput:
            return kExitBadInput;
        case ErrorKind::kFailed:
            break;
    }
    return kExitFailed;
}

}  // namespace tolvane::agent
