// The state of a measuring process, made by hand: tables, slots and a segment
// on the heap, with no server, no wrapper and no start-up.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tolvane/connection_slots.h"
#include "tolvane/segment_format.h"
#include "tolvane/shim_tables.h"

namespace tolvane::test {

class MeasuredProcess {
  public:
    explicit MeasuredProcess(ServerType type, int descriptorLimit = 1024, int records = 1);
    ~MeasuredProcess();
    MeasuredProcess(const MeasuredProcess&) = delete;
    MeasuredProcess& operator=(const MeasuredProcess&) = delete;

  private:
    struct Freed {
        void operator()(void* memory) const;
    };
    std::unique_ptr<void, Freed> segment_;
    int records_;
};

// A pattern as operators write it: "*" stands for any text.
UrlSection pattern(std::string_view text);

struct Site {
    std::string name;
    std::vector<std::string> categories;  // one pattern each
    std::vector<std::string> hosts = {};
};
void configure(ConfigInfo& config, const std::vector<Site>& sites);
void putIntoForce(const std::vector<Site>& sites);

// The fields of a record that are not 0: of the totals, a site, its category,
// as in "total: conn1 in100 | 0: req1 | 0.1: req1".
std::string describe(const ResultStruct& record);

// What has been logged since the last look.
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
