// The last 15 minutes of a row of the table, in steps of equal length.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

namespace tolvane::agent {

inline constexpr int kHistoryStep = 10;    // seconds
inline constexpr int kHistoryPoints = 90;  // 15 minutes

struct HistoryPoint {
    std::uint32_t requests = 0;
    std::uint32_t errors = 0;
    float responseSeconds = 0;  // sum over `responses`
    std::uint32_t responses = 0;
};

// Allocates nothing before the first count.
class History {
  public:
    void add(std::time_t now, const HistoryPoint& counts);

    // kHistoryPoints points, the oldest first; the last is the step of `now`. Empty
    // if nothing was counted in that time.
    std::vector<HistoryPoint> points(std::time_t now) const;

  private:
    std::unique_ptr<HistoryPoint[]> ring_;
    std::int64_t newest_ = 0;  // step number of the newest point in the ring
};

}  // namespace tolvane::agent
