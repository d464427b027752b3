#include "client/base/duration.h"

#include <charconv>
#include <cstdint>

namespace qrtln {

namespace {

// In seconds; 0 for what is no unit.
std::uint64_t seconds_of_unit(char unit) {
    constexpr std::uint64_t minute = 60;
    constexpr std::uint64_t hour = 60 * minute;
    constexpr std::uint64_t day = 24 * hour;
    switch (unit) {
    case 's':
        return 1;
    case 'm':
        return minute;
    case 'h':
        return hour;
    case 'd':
        return day;
    case 'w':
        return 7 * day;
    default:
        return 0;
    }
}

} // namespace

std::optional<std::chrono::seconds> parse_duration(std::string_view text) {
    constexpr std::uint64_t longest = std::uint64_t{100} * 365 * 24 * 60 * 60; // seconds
    std::uint64_t count = 0;
    const char* end = text.data() + text.size();
    auto [behind, error] = std::from_chars(text.data(), end, count);
    if (error != std::errc() || end - behind != 1)
        return std::nullopt;
    const std::uint64_t unit = seconds_of_unit(*behind);
    if (unit == 0 || count > longest / unit)
        return std::nullopt;
    return std::chrono::seconds(count * unit);
}

} // namespace qrtln
