// A point in time in the form that the module's document restore takes.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// The times, earliest first, that the clock shows as these local fields: none where it skips them,
// two where it repeats them. tm_isdst is ignored.
std::vector<std::time_t> times_shown_as(const std::tm& local);

struct PointInTime {
    std::time_t time = 0; // the start of a minute
    std::string digits;   // "YYYYMMDDhhmm", local
    bool cut = false;     // seconds were cut off what was given
};

// The minute that `time` lies in; nothing when the clock shows it twice, as the server would then
// take it for one of the two, or when it has no four-digit year from 1970 on.
std::optional<PointInTime> point_in_time(std::time_t time);

// Reads --since: the forms of --at. Throws ClientError(usage) for anything else, for a time that
// is ambiguous, and for one after `now`.
PointInTime parse_since(const std::string& text, std::time_t now);

// "2026-11-21 02:49", local.
std::string local_minute_text(std::time_t time);

} // namespace qrtln
