// Exit codes of every command; scripts depend on them.
#pragma once

#include "os/error.h"

namespace tolvane::agent {

enum ExitCode : int {
    kExitOk = 0,
    kExitFinding = 1,   // success, but there is no server, or a problem was found
    kExitBadInput = 2,  // wrong usage or a file that is not valid; nothing was changed
    kExitFailed = 3,    // a system call failed, or the server has ended
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
