// The state of a measuring process without a server, wrappers and start-up:
// tables, slots and a segment on the heap.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "shim_utils/slots/connection_slots.h"
#include "support/records.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane::test {

class MeasuredProcess {
  public:
    explicit MeasuredProcess(ServerType type, int descriptorLimit = 1024, int records = 1);
    ~MeasuredProcess();
    MeasuredProcess(const MeasuredProcess&) = delete;
    MeasuredProcess& operator=(const MeasuredProcess&) = delete;

  private:
    std::vector<std::int32_t> segment_;
    int records_;
};

void putIntoForce(const std::vector<Site>& sites);

// The messages logged since the last call.
class LogTail {
  public:
    LogTail();
    std::vector<std::string> next();

  private:
    std::size_t seen_;
};

// Runs `body` in a forked child; its failed expectations are the caller's.
void inChild(const std::function<void()>& body);

}  // namespace tolvane::test
