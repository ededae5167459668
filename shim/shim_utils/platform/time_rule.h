// The rule of a time zone in the syntax of TZ and of the end of a time zone file.
#pragma once

namespace tolvane {

// The number of the day since the epoch; `month` is 1 to 12.
long long dayNumber(long long year, int month, int day);

// The offset of `rule` from UTC at `seconds`, in seconds to the east. False if
// `rule` is not a rule.
bool ruleOffset(const char* rule, long long seconds, long& offset);

}  // namespace tolvane
