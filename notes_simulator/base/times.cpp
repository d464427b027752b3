#include "notes_simulator/base/times.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace notes_sim {

namespace {

constexpr std::int64_t kTicksPerSecond = 100;
constexpr std::int64_t kTicksPerDay = 24 * 3600 * kTicksPerSecond;
constexpr std::int64_t kJulianDayOf1970 = 2440588;

/// Reads from the front of a text and remembers how far it got.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : m_text(text) {}

    std::optional<int> number(std::size_t mostDigits) {
        int value = 0;
        std::size_t digits = 0;
        while (digits < mostDigits && m_at < m_text.size() && m_text[m_at] >= '0' &&
               m_text[m_at] <= '9') {
            value = value * 10 + (m_text[m_at] - '0');
            ++m_at;
            ++digits;
        }
        return digits == 0 ? std::nullopt : std::optional(value);
    }

    bool literal(std::string_view expected) {
        if (expected.empty() || !m_text.substr(m_at).starts_with(expected)) {
            return false;
        }
        m_at += expected.size();
        return true;
    }

    void blanks() {
        while (m_at < m_text.size() && m_text[m_at] == ' ') {
            ++m_at;
        }
    }

    std::size_t at() const { return m_at; }
    bool atDigit() const {
        return m_at < m_text.size() && m_text[m_at] >= '0' && m_text[m_at] <= '9';
    }

  private:
    std::string_view m_text;
    std::size_t m_at = 0;
};

/// Division that rounds down, for times before 1970 too.
std::int64_t floorDivide(std::int64_t value, std::int64_t by) {
    return value >= 0 ? value / by : -((-value + by - 1) / by);
}

bool readDate(Scanner& scanner, const DateFormat& format, std::tm& time) {
    std::array<int, 3> fields{};
    const std::size_t yearAt = format.order == DateFormat::Order::kYearMonthDay ? 0 : 2;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i > 0 && !scanner.literal(format.dateSeparator)) {
            return false;
        }
        const auto value = scanner.number(i == yearAt ? 4 : 2);
        if (!value) {
            return false;
        }
        fields[i] = *value;
    }
    int year = fields[yearAt];
    if (year < 100) {
        year += year < 50 ? 2000 : 1900;
    }
    time.tm_year = year - 1900;
    switch (format.order) {
    case DateFormat::Order::kMonthDayYear:
        time.tm_mon = fields[0] - 1;
        time.tm_mday = fields[1];
        break;
    case DateFormat::Order::kDayMonthYear:
        time.tm_mday = fields[0];
        time.tm_mon = fields[1] - 1;
        break;
    case DateFormat::Order::kYearMonthDay:
        time.tm_mon = fields[1] - 1;
        time.tm_mday = fields[2];
        break;
    }
    return year >= 1900 && time.tm_mon >= 0 && time.tm_mon < 12 && time.tm_mday >= 1 &&
           time.tm_mday <= 31;
}

bool readClock(Scanner& scanner, const DateFormat& format, std::tm& time) {
    const auto hour = scanner.number(2);
    if (!hour || !scanner.literal(format.timeSeparator)) {
        return false;
    }
    const auto minute = scanner.number(2);
    if (!minute) {
        return false;
    }
    int second = 0;
    if (scanner.literal(format.timeSeparator)) {
        const auto value = scanner.number(2);
        if (!value) {
            return false;
        }
        second = *value;
    }
    time.tm_hour = *hour;
    time.tm_min = *minute;
    time.tm_sec = second;
    scanner.blanks();
    const bool afternoon = scanner.literal("PM") || scanner.literal("pm");
    const bool morning = !afternoon && (scanner.literal("AM") || scanner.literal("am"));
    if (afternoon || morning) {
        if (*hour < 1 || *hour > 12) {
            return false;
        }
        time.tm_hour = *hour % 12 + (afternoon ? 12 : 0);
    }
    return time.tm_hour < 24 && time.tm_min < 60 && time.tm_sec < 60;
}

} // namespace

std::int64_t nowInHundredths() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count() / 10;
}

TimeWords toTimeWords(std::int64_t hundredths) {
    const std::int64_t day = floorDivide(hundredths, kTicksPerDay);
    return {static_cast<std::uint32_t>(hundredths - day * kTicksPerDay),
            static_cast<std::uint32_t>(day + kJulianDayOf1970) & 0xFFFFFF};
}

std::int64_t fromTimeWords(const TimeWords& words) {
    const std::int64_t day = static_cast<std::int64_t>(words.day & 0xFFFFFF) - kJulianDayOf1970;
    return day * kTicksPerDay + words.ticks;
}

std::optional<int> parseZone(std::string_view text) {
    Scanner scanner(text);
    const bool east = scanner.literal("+");
    if (!east && !scanner.literal("-")) {
        return std::nullopt;
    }
    const auto hours = scanner.number(2);
    if (!hours || !scanner.literal(":")) {
        return std::nullopt;
    }
    const auto minutes = scanner.number(2);
    if (!minutes || *hours > 14 || *minutes > 59 || scanner.at() != text.size()) {
        return std::nullopt;
    }
    return (*hours * 60 + *minutes) * (east ? 1 : -1);
}

std::optional<std::int64_t> parseTime(std::string_view text, const DateFormat& format,
                                      std::size_t* used) {
    Scanner scanner(text);
    std::tm time = {};
    scanner.blanks();
    if (!readDate(scanner, format, time)) {
        return std::nullopt;
    }
    scanner.blanks();
    if (scanner.atDigit() && !readClock(scanner, format, time)) {
        return std::nullopt;
    }
    scanner.blanks();
    time.tm_isdst = -1;
    const int day = time.tm_mday;
    const std::time_t seconds =
        format.zone ? ::timegm(&time) - *format.zone * 60 : std::mktime(&time);
    // Both carry 31 February over into March: the calendar has no such day.
    if (time.tm_mday != day) {
        return std::nullopt;
    }
    *used = scanner.at();
    return static_cast<std::int64_t>(seconds) * kTicksPerSecond;
}

std::string formatTime(std::int64_t hundredths, const DateFormat& format) {
    const std::time_t seconds =
        floorDivide(hundredths, kTicksPerSecond) + format.zone.value_or(0) * 60;
    std::tm local = {};
    format.zone ? ::gmtime_r(&seconds, &local) : ::localtime_r(&seconds, &local);
    const std::string year = std::to_string(local.tm_year + 1900);
    const auto two = [](int value) {
        const std::string digits = std::to_string(value);
        return digits.size() < 2 ? "0" + digits : digits;
    };
    const std::string& bar = format.dateSeparator;
    std::string date;
    switch (format.order) {
    case DateFormat::Order::kMonthDayYear:
        date = two(local.tm_mon + 1) + bar + two(local.tm_mday) + bar + year;
        break;
    case DateFormat::Order::kDayMonthYear:
        date = two(local.tm_mday) + bar + two(local.tm_mon + 1) + bar + year;
        break;
    case DateFormat::Order::kYearMonthDay:
        date = year + bar + two(local.tm_mon + 1) + bar + two(local.tm_mday);
        break;
    }
    return date + " " + two(local.tm_hour) + format.timeSeparator + two(local.tm_min) +
           format.timeSeparator + two(local.tm_sec);
}

std::string displayTime(std::int64_t hundredths) {
    char fraction[8] = {};
    std::snprintf(fraction, sizeof fraction, ".%02d",
                  static_cast<int>(hundredths - floorDivide(hundredths, 100) * 100));
    return formatTime(hundredths, {DateFormat::Order::kYearMonthDay, "-", ":"}) + fraction;
}

} // namespace notes_sim
