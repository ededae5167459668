#include "fake_clock.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace tolvane::test {
FakeClock& fakeClock() {
    thread_local FakeClock clock;
    return clock;
}
std::atomic<std::time_t> fakeTime{0};
std::atomic<int> monotonicAhead{0};
std::function<void()> insteadOfSleeping;
}  // namespace tolvane::test

// These functions replace the C library's.
extern "C" int gettimeofday(timeval* time, void*) noexcept {
    tolvane::test::FakeClock& clock = tolvane::test::fakeClock();
    clock.now += clock.step;
    time->tv_sec = static_cast<decltype(time->tv_sec)>(clock.now / 1'000'000);
    time->tv_usec = static_cast<decltype(time->tv_usec)>(clock.now % 1'000'000);
    return 0;
}

extern "C" int clock_gettime(clockid_t id, timespec* time) noexcept {
    const auto result = syscall(SYS_clock_gettime, id, time);
    if (id != CLOCK_REALTIME) time->tv_sec += tolvane::test::monotonicAhead.load();
    return static_cast<int>(result);
}

extern "C" int clock_nanosleep(clockid_t id, int flags, const timespec* time, timespec* left) {
    if (!tolvane::test::insteadOfSleeping) {
        return static_cast<int>(syscall(SYS_clock_nanosleep, id, flags, time, left));
    }
    tolvane::test::insteadOfSleeping();
    return 0;
}

extern "C" std::time_t time(std::time_t* result) noexcept {
    std::time_t now = tolvane::test::fakeTime.load();
    if (now == 0) {
        timespec real = {};
        clock_gettime(CLOCK_REALTIME, &real);
        now = real.tv_sec;
    }
    if (result != nullptr) *result = now;
    return now;
}
