// The rule of a time zone as TZ or the end of a time zone file gives it.
#pragma once

namespace tolvane {

// The number of the day since the epoch; `month` is 1 to 12.
long long dayNumber(long long year, int month, int day);

// The offset from UTC, in seconds to the east, that `rule` has at `seconds`.
// False: it is no rule.
bool ruleOffset(const char* rule, long long seconds, long& offset);

}  // namespace tolvane
