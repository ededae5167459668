// The local date and time without the C library's conversion. That function holds
// a lock, which a fork can leave locked in the child, and which the interrupted
// thread may hold when a server exits from a signal handler.
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

// Converts `seconds` since the epoch to the process's time zone. If the zone can no
// longer be read, uses the last known offset from UTC. False if the year is too
// large.
bool localTime(long long seconds, LocalTime& local);

// The offset of `zone` from UTC at `seconds`, in seconds to the east. `zone` is a
// value of TZ: a file below /usr/share/zoneinfo or elsewhere, or a rule such as
// "CET-1CEST,M3.5.0,M10.5.0/3". False if it is neither.
bool utcOffset(const char* zone, long long seconds, long& offset);

}  // namespace tolvane
