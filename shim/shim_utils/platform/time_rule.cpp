#include "shim_utils/platform/time_rule.h"

#include "shim_utils/platform/local_time.h"
#include "shim_utils/platform/text.h"

namespace tolvane {
namespace {

constexpr long kHour = 3600;
constexpr long kDay = 24 * kHour;

// The day of a year, and the time of that day, at which the clocks change.
struct Change {
    enum Kind { kWeekday, kDayWithoutLeap, kDayOfYear } kind;
    int month;  // month and week: for kWeekday only
    int week;   // 5: the last
    int day;
    long time;  // in seconds, on the clock before the change
};

class RuleReader {
  public:
    explicit RuleReader(const char* text) : next_(text) {}

    bool atEnd() const { return *next_ == '\0'; }
    bool at(char c) const { return *next_ == c; }

    bool skip(char c) {
        if (*next_ != c) return false;
        ++next_;
        return true;
    }

    bool skipName() {
        const char* start = next_;
        const bool quoted = skip('<');
        while (isLetter(*next_) || (quoted && !atEnd() && !at('>'))) ++next_;
        return quoted ? skip('>') : next_ - start >= 3;
    }

    // [+-]hh[:mm[:ss]]
    bool readTime(long& seconds) {
        const bool negative = at('-');
        if (at('-') || at('+')) ++next_;
        seconds = 0;
        long unit = kHour;
        do {
            int value;
            if (!readNumber(0, 167, value)) return false;
            seconds += value * unit;
            unit /= 60;
        } while (unit != 0 && skip(':'));
        if (negative) seconds = -seconds;
        return true;
    }

    bool readChange(Change& change) {
        change = {Change::kDayOfYear, 0, 0, 0, 2 * kHour};
        if (!skip(',') || !readDay(change)) return false;
        return !skip('/') || readTime(change.time);
    }

  private:
    static bool isLetter(char c) { return lowerCase(c) >= 'a' && lowerCase(c) <= 'z'; }

    bool readNumber(int least, int most, int& value) {
        if (!isDigit(*next_)) return false;
        for (value = 0; isDigit(*next_) && value <= most; ++next_) {
            value = value * 10 + (*next_ - '0');
        }
        return value >= least && value <= most;
    }

    bool readDay(Change& change) {
        if (skip('M')) {
            change.kind = Change::kWeekday;
            return readNumber(1, 12, change.month) && skip('.') && readNumber(1, 5, change.week) &&
                   skip('.') && readNumber(0, 6, change.day);
        }
        if (!skip('J')) return readNumber(0, 365, change.day);
        change.kind = Change::kDayWithoutLeap;
        return readNumber(1, 365, change.day);
    }

    const char* next_;
};

// The time of the change in `year`, as if the clock before the change showed UTC.
long long changeIn(long long year, const Change& change) {
    const long long newYear = dayNumber(year, 1, 1);
    long long day = newYear + change.day;
    if (change.kind == Change::kDayWithoutLeap) {
        const bool leap = dayNumber(year, 3, 1) - newYear == 60;
        if (!leap || change.day < 60) --day;
    } else if (change.kind == Change::kWeekday) {
        const long long first = dayNumber(year, change.month, 1);
        const auto weekday = static_cast<int>(((first + 4) % 7 + 7) % 7);
        day = first + (change.day - weekday + 7) % 7 + 7 * (change.week - 1);
        const long long after =
            change.month < 12 ? dayNumber(year, change.month + 1, 1) : dayNumber(year + 1, 1, 1);
        if (day >= after) day -= 7;
    }
    return day * kDay + change.time;
}

}  // namespace

// Years begin in March here, so that a leap day is the last day.
long long dayNumber(long long year, int month, int day) {
    if (month < 3) --year;
    const long long era = (year >= 0 ? year : year - 399) / 400;
    const long long yearOfEra = year - era * 400;
    const int dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

bool ruleOffset(const char* rule, long long seconds, long& offset) {
    RuleReader reader(rule);
    long west;
    if (!reader.skipName() || !reader.readTime(west)) return false;
    offset = -west;
    if (reader.atEnd()) return true;

    long summer = offset + kHour;
    if (!reader.skipName()) return false;
    if (!reader.atEnd() && !reader.at(',')) {
        if (!reader.readTime(west)) return false;
        summer = -west;
    }
    if (reader.atEnd()) reader = RuleReader(",M3.2.0,M11.1.0");
    Change start;
    Change end;
    if (!reader.readChange(start) || !reader.readChange(end)) return false;

    const long long year = calendarTime(seconds).year;
    const long long from = changeIn(year, start) - offset;
    const long long until = changeIn(year, end) - summer;
    const bool inSummer =
        from <= until ? seconds >= from && seconds < until : seconds >= from || seconds < until;
    if (inSummer) offset = summer;
    return true;
}

}  // namespace tolvane
