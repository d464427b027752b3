#include "client/point_in_time.h"

#include "client/error.h"
#include "client/restore_selection.h"
#include "client/text.h"

#include <algorithm>
#include <array>

namespace qrtln {

namespace {

bool same_fields(const std::tm& a, const std::tm& b) {
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday &&
           a.tm_hour == b.tm_hour && a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

} // namespace

std::vector<std::time_t> times_shown_as(const std::tm& local) {
    std::vector<std::time_t> times;
    for (int summer : {0, 1}) {
        std::tm copy = local;
        copy.tm_isdst = summer;
        std::time_t time = ::mktime(&copy);
        std::tm back{};
        if (time != -1 && ::localtime_r(&time, &back) != nullptr && same_fields(back, local) &&
            std::find(times.begin(), times.end(), time) == times.end())
            times.push_back(time);
    }
    std::sort(times.begin(), times.end());
    return times;
}

std::optional<PointInTime> point_in_time(std::time_t time) {
    std::tm local{};
    if (time < 0 || ::localtime_r(&time, &local) == nullptr || local.tm_year > 8099)
        return std::nullopt;
    PointInTime point;
    point.cut = local.tm_sec != 0;
    point.time = time - local.tm_sec;
    local.tm_sec = 0;
    if (times_shown_as(local) != std::vector<std::time_t>{point.time})
        return std::nullopt;
    std::array<char, 16> digits{};
    if (std::strftime(digits.data(), digits.size(), "%Y%m%d%H%M", &local) == 0)
        return std::nullopt;
    point.digits = digits.data();
    return point;
}

PointInTime parse_since(const std::string& text, std::time_t now) {
    Moment moment = parse_moment(text, "--since");
    if (moment.time > now)
        throw ClientError(ExitCode::usage, "--since '" + for_terminal(text) +
                                               "' is in the future: nothing has changed since");
    std::optional<PointInTime> point = point_in_time(moment.time);
    if (!point)
        throw ClientError(ExitCode::usage,
                          "--since '" + for_terminal(text) +
                              "' cannot be told to the server, which takes local time: the clock "
                              "shows it twice, or it is before 1970",
                          "take a time before or after that hour");
    return *point;
}

std::string local_minute_text(std::time_t time) {
    std::tm local{};
    std::array<char, 32> text{};
    if (::localtime_r(&time, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &local) == 0)
        return {};
    return text.data();
}

} // namespace qrtln
