// Times of the simulated server: hundredths of a second since 1970 (GMT) inside, the two words of
// a TIMEDATE and local-time texts outside.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace notes_sim {

/// The present time in hundredths of a second since 1970, GMT.
std::int64_t nowInHundredths();

/// The two words of a TIMEDATE: hundredths since midnight GMT, and the Julian day number. The high
/// byte of the second word (zone and daylight flags) is 0: all times are kept in GMT.
struct TimeWords {
    std::uint32_t ticks = 0;
    std::uint32_t day = 0;
};

TimeWords toTimeWords(std::int64_t hundredths);
/// The inverse. The high byte of the second word is ignored; a wildcard is earlier than all times.
std::int64_t fromTimeWords(const TimeWords& words);

/// How dates are written.
struct DateFormat {
    enum class Order { kMonthDayYear, kDayMonthYear, kYearMonthDay };
    Order order = Order::kMonthDayYear;
    std::string dateSeparator = "/";
    std::string timeSeparator = ":";
    std::optional<int> zone = {}; ///< minutes east of GMT; without it the time is local
};

/// Reads a zone "+05:30": minutes east of GMT. None for anything else.
std::optional<int> parseZone(std::string_view text);

/// Reads "<date>[ <time>]" in the format's zone from the front of text: three numbers of a date in
/// the order of the format, then hours, minutes and optionally seconds, then optionally AM or PM.
/// A date alone means its midnight. On success *used is how many characters were read, trailing
/// blanks included. None when there is no valid date and time (31 February, 25:00).
std::optional<std::int64_t> parseTime(std::string_view text, const DateFormat& format,
                                      std::size_t* used);

/// Writes a time as "<date> <time>" in the format's zone, with two-digit fields and a four-digit
/// year.
std::string formatTime(std::int64_t hundredths, const DateFormat& format);

/// A time for people: "2026-03-05 14:07:09.12", local.
std::string displayTime(std::int64_t hundredths);

} // namespace notes_sim
