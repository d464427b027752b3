#include "client/domino/local_time.h"

#include "client/base/text.h"

#include <array>
#include <fmt/format.h>
#include <set>

namespace qrtln {

namespace {

// Of the fields of a tm, which count from 1900.
constexpr int year_1000 = 1000 - 1900;
constexpr int year_9999 = 9999 - 1900;

bool same_fields(const std::tm& a, const std::tm& b) {
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
           a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

std::optional<std::tm> local_fields(std::time_t time) {
    std::tm local{};
    return ::localtime_r(&time, &local) != nullptr ? std::optional(local) : std::nullopt;
}

} // namespace

std::vector<std::time_t> times_shown_as(const std::tm& local) {
    std::set<std::time_t> times;
    auto take = [&](std::time_t time) {
        std::optional<std::tm> shown = local_fields(time);
        if (shown && same_fields(*shown, local))
            times.insert(time);
    };
    for (int summer : {0, 1}) {
        std::tm copy = local;
        copy.tm_isdst = summer;
        take(::mktime(&copy)); // a failure is -1, which the clock does not show as these fields
    }
    // A zone may change for good, without a summer time.
    if (!times.empty())
        for (std::time_t first = *times.begin(), shift = -longest_repetition;
             shift <= longest_repetition; shift += quarter_hour)
            take(first + shift);
    return {times.begin(), times.end()};
}

std::vector<std::time_t> times_beside_skipped(const std::tm& local) {
    std::vector<std::time_t> times;
    for (int summer : {1, 0}) {
        std::tm copy = local;
        copy.tm_isdst = summer;
        times.push_back(::mktime(&copy));
    }
    if (times.front() == times.back())
        times.pop_back();
    return times;
}

bool is_shown_once(std::time_t time) {
    std::optional<std::tm> local = local_fields(time);
    return !local || times_shown_as(*local).size() == 1;
}

std::time_t shown_once_from(std::time_t time) {
    while (!is_shown_once(time))
        time += quarter_hour;
    return time;
}

std::time_t shown_once_until(std::time_t time) {
    while (!is_shown_once(time))
        time -= quarter_hour;
    return time;
}

std::string times_shown_once_beside(std::time_t time) {
    // Clocks are changed at a quarter of an hour.
    const std::time_t quarter = time - time % quarter_hour;
    return fmt::format("{} or before, {} or later",
                       zoned_time(shown_once_until(quarter) + quarter_hour - 1),
                       zoned_time(shown_once_from(quarter)));
}

std::optional<std::string> local_digits(std::time_t time) {
    std::optional<std::tm> local = local_fields(time);
    std::array<char, 32> text{};
    if (!local || local->tm_year < year_1000 || local->tm_year > year_9999 ||
        std::strftime(text.data(), text.size(), "%Y%m%d%H%M%S", &*local) == 0)
        return std::nullopt;
    return text.data();
}

std::optional<std::string> local_digits_not_after(std::time_t time) {
    ::tzset();
    for (std::time_t back = 0; back <= longest_repetition; back += quarter_hour) {
        std::optional<std::tm> local = local_fields(time - back);
        std::optional<std::string> digits = local_digits(time - back);
        if (!digits)
            continue;
        const std::vector<std::time_t> times = times_shown_as(*local);
        if (!times.empty() && times.back() <= time)
            return digits;
    }
    return std::nullopt;
}

std::string zoned_time(std::time_t time) {
    std::optional<std::tm> local = local_fields(time);
    std::array<char, 32> text{};
    if (!local || local->tm_gmtoff % 60 != 0 ||
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &*local) == 0)
        return utc_time(time);
    long minutes = (local->tm_gmtoff < 0 ? -local->tm_gmtoff : local->tm_gmtoff) / 60;
    return fmt::format("{}{}{:02}:{:02}", text.data(), local->tm_gmtoff < 0 ? '-' : '+',
                       minutes / 60, minutes % 60);
}

} // namespace qrtln
