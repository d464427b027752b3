// Times as people write them, and a point in time in the form that the module's document restore
// takes.
#pragma once

#include "client/domino/local_time.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace qrtln {

// A time that was given: the moment up to which copies count, changes are replayed, or from which
// on they are wanted.
struct Moment {
    std::int64_t time = 0;  // seconds since 1970
    std::string set_prefix; // or the beginning of a set's name, of that time: that very set
};

// Every time that the program takes or prints: RFC 3339, "2026-11-21T02:49:23Z" or
// "2026-11-21T03:49:23+01:00"; local without the zone. "T" may be a blank, both letters may be
// small, the seconds may be left out. Or "20261121T024923Z" as in a set's name. Throws
// ClientError(usage) that names `option` for anything else, for dates that do not exist, and for
// local times that the clock skips or shows twice, with both readings.
Moment parse_moment(const std::string& text, const std::string& option);

struct PointInTime {
    std::time_t time = 0; // the start of a minute
    std::string digits;   // "YYYYMMDDhhmm", local
    bool cut = false;     // seconds were cut off what was given
};

// The minute that `time` lies in; nothing when the clock shows it twice, as the server would then
// take it for one of the two, or when it has no four-digit year from 1970 on.
std::optional<PointInTime> point_in_time(std::time_t time);

// Reads --since. Throws ClientError(usage) as parse_moment does, for a time that local time does
// not name, and for one after `now`.
PointInTime parse_since(const std::string& text, std::time_t now);

} // namespace qrtln
