#include "client/acceptance/probe_times.h"

#include "client/acceptance/notes_runtime.h"
#include "client/base/text.h"
#include "client/domino/local_time.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <iomanip>
#include <sstream>

namespace qrtln::acceptance {

namespace {

// Bits of INTLFORMAT::Flags: the order of a date's parts.
constexpr WORD month_day_year = 0x0020;
constexpr WORD day_month_year = 0x0040;
constexpr WORD year_month_day = 0x0080;
constexpr TFMT date_and_time = {0, 0, 2, 2};
constexpr std::int64_t seconds_of_a_day = 24 * 3600;
constexpr std::int64_t julian_day_of_1970 = 2440588;
constexpr DWORD julian_day_mask = 0xFFFFFF;

std::string signed_seconds(std::int64_t seconds) {
    return (seconds < 0 ? "-" : "+") + human_duration(std::llabs(seconds));
}

// 15 January or 15 July of this year, at a time of day that no clock change touches.
std::time_t moment_in(int month) {
    std::time_t now = std::time(nullptr);
    struct tm local {};
    ::localtime_r(&now, &local);
    struct tm wanted {};
    wanted.tm_year = local.tm_year;
    wanted.tm_mon = month;
    wanted.tm_mday = 15;
    wanted.tm_hour = 12;
    wanted.tm_min = 34;
    wanted.tm_isdst = -1;
    return ::mktime(&wanted);
}

// The present, or a little before where the clock shows it twice: that has two readings.
std::time_t present() {
    return shown_once_until(std::time(nullptr) / 60 * 60);
}

std::string field(const char* text, std::size_t size) {
    return {text, ::strnlen(text, size)};
}

std::string formatted(std::time_t time, const char* format) {
    struct tm local {};
    ::localtime_r(&time, &local);
    std::ostringstream text;
    text << std::put_time(&local, format);
    return text.str();
}

// Day, month, year and the time of day, with the separators of the server.
std::string with_separators(const INTLFORMAT& intl, std::time_t time) {
    const std::string date = field(intl.DateString, sizeof intl.DateString);
    const std::string clock = field(intl.TimeString, sizeof intl.TimeString);
    auto part = [time](const char* format) { return formatted(time, format); };
    return fmt::format("{}{}{}{}{} {}{}{}{}{}", part("%d"), date, part("%m"), date, part("%Y"),
                       part("%H"), clock, part("%M"), clock, part("%S"));
}

std::int64_t moment_of(const TIMEDATE& time) {
    const auto day = static_cast<std::int64_t>(time.Innards[1] & julian_day_mask);
    return (day - julian_day_of_1970) * seconds_of_a_day + time.Innards[0] / 100;
}

struct Reading {
    std::int64_t difference = 0; // seconds that the server reads it later
    TIMEDATE time{};
};

Reading read_by_server(Teller& teller, const INTLFORMAT* intl, const std::string& text,
                       std::time_t moment) {
    teller.calling(fmt::format("ConvertTextToTIMEDATE({})", printable_utf8(text)));
    std::string copy = text;
    char* rest = copy.data(); // the call moves it
    Reading reading;
    const STATUS status =
        notes_api.ConvertTextToTIMEDATE(intl, intl != nullptr ? &date_and_time : nullptr, &rest,
                                        static_cast<WORD>(copy.size()), &reading.time);
    if (status != kNotesNoError)
        teller.stop(
            "times",
            fmt::format("the server does not read the time {}: {}", text, status_text(status)),
            {{"ConvertTextToTIMEDATE", status}});
    reading.difference = moment_of(reading.time) - static_cast<std::int64_t>(moment);
    return reading;
}

void write_back(Teller& teller, const INTLFORMAT& intl, const TIMEDATE& time,
                const std::string& expected) {
    teller.calling(fmt::format("ConvertTIMEDATEToText({})", printable_utf8(expected)));
    char buffer[81] = "";
    WORD length = 0;
    const STATUS status =
        notes_api.ConvertTIMEDATEToText(&intl, &date_and_time, &time, buffer, 80, &length);
    const std::string text = field(buffer, std::min<std::size_t>(length, 80));
    if (status != kNotesNoError)
        teller.stop(
            "times",
            fmt::format("the server does not write the time {}: {}", expected, status_text(status)),
            {{"ConvertTIMEDATEToText", status}});
    if (text != expected)
        teller.told("times", fmt::format("the server writes \"{}\" as \"{}\"", expected, text),
                    {{"ConvertTIMEDATEToText", status}});
}

std::string zone_in_use() {
    const char* zone = std::getenv("TZ");
    return zone != nullptr ? "TZ=" + printable_utf8(zone) : "TZ is not set";
}

} // namespace

void probe_times(Teller& teller) {
    INTLFORMAT intl{};
    teller.calling("OSGetIntlSettings()");
    notes_api.OSGetIntlSettings(&intl, sizeof intl);
    intl.Flags =
        static_cast<WORD>((intl.Flags | day_month_year) & ~(month_day_year | year_month_day));
    std::string differences;
    bool same = true;
    for (const auto& [name, moment] :
         {std::pair{"winter", moment_in(0)}, {"summer", moment_in(6)}, {"now", present()}}) {
        const std::string text = with_separators(intl, moment);
        const Reading full = read_by_server(teller, &intl, text, moment);
        write_back(teller, intl, full.time, text);
        // Document restores take minutes, month first, whatever the server's settings.
        const Reading minutes =
            read_by_server(teller, nullptr, formatted(moment, "%m/%d/%Y %H:%M"), moment);
        same = same && full.difference == 0 && minutes.difference == 0;
        differences +=
            fmt::format("{}{} {} {}: {}, month first {}", differences.empty() ? "" : "; ", name,
                        text, formatted(moment, "%z"), signed_seconds(full.difference),
                        signed_seconds(minutes.difference));
    }
    if (!same)
        teller.stop(
            "zone",
            fmt::format("the server reads our times as others ({}; set TZ to the server's): {}",
                        zone_in_use(), differences));
    teller.ok("times",
              fmt::format("a winter, a summer and the present time are read as meant ({}, now {})",
                          zone_in_use(), formatted(present(), "%z")));
}

} // namespace qrtln::acceptance
