// The time of day as the code under test reads it: each thread has its own,
// which advances by a set step before every reading.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

namespace tolvane::test {

struct FakeClock {
    std::int64_t now = 1'000'000'000'000'000;  // microseconds
    std::int64_t step = 250'000;
};
FakeClock& fakeClock();

// What time() returns; 0: the real time.
extern std::atomic<std::time_t> fakeTime;

}  // namespace tolvane::test
