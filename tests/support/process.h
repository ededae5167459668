// A measured server: a program under the preloaded library.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tolvane::test {

class Process {
  public:
    // `environment` ("NAME=value") is all that the program gets beside PATH.
    Process(std::vector<std::string> command, std::vector<std::string> environment);
    // Kills what is left of the program and its children.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    std::vector<pid_t> children() const;
    void signal(int number) const;
    // The exit status as the system reports it; nothing after the time is up.
    std::optional<int> wait(std::chrono::milliseconds time);

  private:
    pid_t pid_;
    bool reaped_ = false;
};

// Tries every few milliseconds until the condition holds; false: it never did.
bool eventually(std::chrono::milliseconds time, const std::function<bool()>& condition);

}  // namespace tolvane::test
