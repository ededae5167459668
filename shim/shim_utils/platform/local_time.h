// The local date and time, without the C library's conversion: that one holds a
// lock, which a fork can leave locked in the child, and which a server that
// exits from a signal handler may hold itself.
#pragma once

namespace tolvane {

struct LocalTime {
    long long year;
    int month;  // 1 to 12
    int day;
    int hour;
    int minute;
    int second;
};

// The calendar date and time of `seconds` since the epoch.
LocalTime calendarTime(long long seconds);

// `seconds` since the epoch as the process's time zone shows it. Where the zone
// cannot be read any more, the offset from UTC is the one known last. False: the
// year is too large for any date.
bool localTime(long long seconds, LocalTime& local);

// The offset from UTC, in seconds to the east, that `zone` has at `seconds`.
// `zone` is what TZ holds: a file below /usr/share/zoneinfo or elsewhere, or
// else a rule such as "CET-1CEST,M3.5.0,M10.5.0/3". False: neither.
bool utcOffset(const char* zone, long long seconds, long& offset);

}  // namespace tolvane
