// The one exception type that the agent's own code throws.
#pragma once

#include <fmt/core.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace tolvane::agent {

enum class ErrorKind {
    kNotFound,      // there is no such server
    kInvalidInput,  // an argument or a file is not valid; nothing was changed
    kFailed,        // a system call failed, or the server has ended
};

class Error : public std::runtime_error {
  public:
    Error(ErrorKind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
    ErrorKind kind() const { return kind_; }

  private:
    ErrorKind kind_;
};

template <typename... Args>
[[noreturn]] void fail(ErrorKind kind, fmt::format_string<Args...> format, Args&&... args) {
    throw Error(kind, fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace tolvane::agent
