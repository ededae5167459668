#include "collector/history.h"

#include <algorithm>

namespace tolvane::agent {

namespace {

std::int64_t stepOf(std::time_t now) {
    return std::max<std::int64_t>(now, 0) / kHistoryStep;
}

std::size_t placeOf(std::int64_t step) {
    return static_cast<std::size_t>(step % kHistoryPoints);
}

}  // namespace

void History::add(std::time_t now, const HistoryPoint& counts) {
    std::int64_t step = stepOf(now);
    // After the clock was set back, the older points would be in the future.
    if (!ring_ || step < newest_ - 1) {
        ring_ = std::make_unique<HistoryPoint[]>(kHistoryPoints);
        newest_ = step;
    }
    for (std::int64_t empty = std::max(newest_ + 1, step - kHistoryPoints + 1); empty <= step;
         ++empty) {
        ring_[placeOf(empty)] = {};
    }
    newest_ = std::max(newest_, step);
    HistoryPoint& point = ring_[placeOf(newest_)];
    point.requests += counts.requests;
    point.errors += counts.errors;
    point.responseSeconds += counts.responseSeconds;
    point.responses += counts.responses;
}

std::vector<HistoryPoint> History::points(std::time_t now) const {
    std::int64_t last = std::max(stepOf(now), newest_);
    if (!ring_ || newest_ <= last - kHistoryPoints) return {};
    std::vector<HistoryPoint> points(kHistoryPoints);
    for (std::int64_t step = last - kHistoryPoints + 1; step <= newest_; ++step) {
        points[static_cast<std::size_t>(step - (last - kHistoryPoints + 1))] = ring_[placeOf(step)];
    }
    return points;
}

}  // namespace tolvane::agent
