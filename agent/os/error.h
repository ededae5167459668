// How a command ends when it cannot do what it was asked to.
#pragma once

#include <fmt/core.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace tolvane::agent {

// Exit codes of every command; scripts rely on them.
enum ExitCode : int {
    kExitOk = 0,
    kExitFinding = 1,   // done, and there is something to know: no server, a problem found
    kExitBadInput = 2,  // wrong usage or a file that is not valid; nothing was changed
    kExitFailed = 3,    // the system refused, or the server went away
};

class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

template <typename... Args>
[[noreturn]] void fail(ExitCode code, fmt::format_string<Args...> format, Args&&... args) {
    throw Failure(code, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace tolvane::agent
