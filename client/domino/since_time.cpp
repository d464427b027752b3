#include "client/domino/since_time.h"

#include "client/base/error.h"
#include "client/domino/point_in_time.h"

#include <array>

namespace qrtln {

namespace {

std::string local_text(std::time_t time) {
    std::tm local{};
    std::array<char, 32> text{};
    if (::localtime_r(&time, &local) == nullptr || local.tm_year < -900 || local.tm_year > 8099 ||
        std::strftime(text.data(), text.size(), "%Y%m%d%H%M%S", &local) == 0)
        return {};
    return text.data();
}

// Whether a time after `limit` has the same text.
bool is_read_as_later(std::time_t time, const std::string& text, std::time_t limit) {
    for (std::time_t shift = quarter_hour; shift <= longest_repetition; shift += quarter_hour)
        if (time + shift > limit && local_text(time + shift) == text)
            return true;
    return false;
}

} // namespace

std::string since_time_text(std::time_t time) {
    ::tzset();
    for (std::time_t back = 0; back <= longest_repetition; back += quarter_hour) {
        std::string text = local_text(time - back);
        if (!text.empty() && !is_read_as_later(time - back, text, time))
            return text;
    }
    throw ClientError(ExitCode::failed, "the start of the base backup, " + std::to_string(time) +
                                            " seconds since 1970, has no date");
}

} // namespace qrtln
