// The collector's messages: one line each on standard error, where a service
// manager adds the time.
#pragma once

#include <fmt/core.h>

#include <cstdio>
#include <string>
#include <utility>

namespace tolvane::agent {

template <typename... Args>
void logLine(fmt::format_string<Args...> format, Args&&... args) {
    std::string line = fmt::format(format, std::forward<Args>(args)...);
    line += '\n';
    // A closed standard error does not end the collector.
    std::fwrite(line.data(), 1, line.size(), stderr);
}

// A condition that lasts over many rounds, logged when it begins and when its
// text changes.
class LastingCondition {
  public:
    // Empty: the condition has ended.
    void set(const std::string& text) {
        if (text != text_ && !text.empty()) logLine("{}", text);
        text_ = text;
    }

  private:
    std::string text_;
};

}  // namespace tolvane::agent
