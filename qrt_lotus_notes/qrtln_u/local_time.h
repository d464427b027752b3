// Between moments (seconds since 1970, UTC) and what the local clock shows (TZ, or the system's
// zone). One rule for a clock hour that comes twice or never: such fields name two moments, or
// none, and the caller decides.
#pragma once

#include <ctime>
#include <vector>

// Fills in what the clock shows at a moment. False, `fields` undefined, when it has no date.
bool localFieldsOf(time_t moment, struct tm& fields);

// Whether these are a date of the calendar and a time of the day, on whatever clock: no 30
// February, no minute 60. tm_isdst, the day of the week and that of the year do not count.
bool isCalendarTime(const struct tm& fields);

// Every moment at which the clock shows the fields, the earliest first: none where it skips them,
// several where it repeats them, be it for daylight saving or because the zone moved. tm_isdst is
// ignored. REQUIRES: isCalendarTime(fields).
std::vector<time_t> momentsShownAs(const struct tm& fields);

// The earliest moment that may be meant, for a caller that must rather go back too far than not far
// enough: of a repeated time its first, of a skipped one the earlier of its two readings, by the
// clock before and by the clock after. A day past its month's end, and a second or more past its
// minute, count on from there.
time_t earliestMomentOf(const struct tm& fields);
