// The time of day as the code under test reads it: each thread has its own,
// which advances by a set step before every reading.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>

namespace tolvane::test {

struct FakeClock {
    std::int64_t now = 1'000'000'000'000'000;  // microseconds
    std::int64_t step = 250'000;
};
FakeClock& fakeClock();

// What time() returns; 0: the real time.
extern std::atomic<std::time_t> fakeTime;

// How far the monotonic clock is ahead of the real one, in seconds.
extern std::atomic<int> monotonicAhead;

// What clock_nanosleep does instead of sleeping; null: it sleeps.
extern std::function<void()> insteadOfSleeping;

}  // namespace tolvane::test
