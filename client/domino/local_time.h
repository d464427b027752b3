// Local time, in which people write times and the server is told them: the one rule for an hour
// that the clock shows twice or never.
//
// A text without a zone is a moment when the clock shows it exactly once; else it is refused, with
// the moments that may be meant. The server is told local time without a zone. It gets a moment
// that the clock shows once as it is. One that the clock shows twice is not told where the very
// moment counts, as the server would take it for one of the two: the end of a recovery, or since
// when documents are restored. Where an earlier moment only makes more work, the start of a base
// backup, an earlier one is told.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// Clocks are set by whole ones, and none was ever set back by more than a day.
inline constexpr std::time_t quarter_hour = 900;
inline constexpr std::time_t longest_repetition = 24 * 3600;

// The times, earliest first, that the clock shows as these local fields: none where it skips them,
// several where it repeats them. tm_isdst is ignored.
std::vector<std::time_t> times_shown_as(const std::tm& local);

// Of local fields that the clock skips: the times that they are by the clock as it was before, and
// as it is after.
std::vector<std::time_t> times_beside_skipped(const std::tm& local);

// Whether the clock shows no other time like this one. True, too, for a time without a date.
bool is_shown_once(std::time_t time);

// The time itself, or the next one in whole quarters of an hour before or after it that the clock
// shows once.
std::time_t shown_once_from(std::time_t time);
std::time_t shown_once_until(std::time_t time);

// Of a time that the clock shows twice: the last one before and the first one after it that it
// shows once, "2026-10-25T01:59:59+02:00 or before, 2026-10-25T03:00:00+01:00 or later".
std::string times_shown_once_beside(std::time_t time);

// "YYYYMMDDhhmmss" in local time; nothing for a time that has no date of four-digit year. The
// server reads it as another time where is_shown_once() does not hold.
std::optional<std::string> local_digits(std::time_t time);

// The same of `time`, or of the latest time before it whose text is never read as one after
// `time`; nothing for a time that has no date of four-digit year.
std::optional<std::string> local_digits_not_after(std::time_t time);

// "2026-11-21T03:49:23+01:00": local time with its zone.
std::string zoned_time(std::time_t time);

} // namespace qrtln
