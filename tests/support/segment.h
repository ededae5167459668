// The agent's side of a measured server: finds the segment through the handoff
// file, reads the records, writes configurations.
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <vector>

#include "tolvane/segment_format.h"

namespace tolvane::test {

struct Site {
    std::string name;
    std::vector<std::string> hosts;
    // One section each: literal text with "*" for any text.
    std::vector<std::string> categories;
};

// The counts of one record, or of several together. Gauges are left out: how
// often one is handed on depends on when the publications fall.
struct Counts {
    CounterBlock total{};
    std::array<CounterBlock, kMaxSites> site{};
    std::array<std::array<CategoryCounters, kMaxCategories>, kMaxSites> category{};

    Counts& operator+=(const Counts& other);
    // One line for each block in which anything was counted, for comparisons;
    // response times are left out.
    std::string text() const;
};

class Segment {
  public:
    // Waits for the only handoff file there is.
    Segment();
    ~Segment();
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    ConfigInfo& config() { return *config_; }
    ResultStruct& record(int index) { return records_[index]; }
    Counts counts() const;  // over all records
    double responseTime(int site, int category) const;
    int semaphoreValue(int record) const;
    // Fills the block and then raises the version.
    void configure(const std::vector<Site>& sites, int interval = 60);
    void raiseVersion();

    const std::string& handoffFile() const { return handoffFile_; }
    int id() const { return id_; }
    int structures() const { return structures_; }

  private:
    std::string handoffFile_;
    int id_ = -1;
    int structures_ = 0;
    ConfigInfo* config_ = nullptr;
    ResultStruct* records_ = nullptr;
};

// Expects the segment to hold exactly these counts before the time is up.
void expectCounts(const Segment& segment, const Counts& expected, std::chrono::milliseconds time);

}  // namespace tolvane::test
