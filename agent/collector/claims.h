// Which collector has which server, and which state directory: locks on files
// that the system gives back when their holder ends, however it does.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace tolvane::agent {

inline constexpr char kClaimsFile[] = "/opt/tolvane/agent/data/collectors";

class Claims {
  public:
    // Opens the file and creates it if there is none. Throws Error.
    explicit Claims(const std::string& path);
    ~Claims();
    Claims(const Claims&) = delete;
    Claims& operator=(const Claims&) = delete;

    // Claims a number of 0 or more, such as a segment's identifier. Returns 0
    // when it is ours, else the process that has it (-1 when the system does
    // not say).
    pid_t claim(std::int32_t number) const;
    void release(std::int32_t number) const;

  private:
    int fd_;
};

}  // namespace tolvane::agent
