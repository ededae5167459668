// The agent's side of a measured server: finds the segment through the handoff
// file, reads the records, writes configurations.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "support/records.h"

namespace tolvane::test {

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
void expectCounts(const Segment& segment, const std::string& text, std::chrono::milliseconds time);

}  // namespace tolvane::test
