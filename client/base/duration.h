// Lengths of time as a person types them.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace qrtln {

// "90s", "15m", "36h", "7d", "2w": a whole number of seconds, minutes, hours, days or weeks.
// Nothing for anything else, and for more than a hundred years.
std::optional<std::chrono::seconds> parse_duration(std::string_view text);

// What to say to one that is none, as a hint.
inline constexpr const char* duration_hint =
    "say a number with s, m, h, d or w behind it, as in 36h or 7d";

} // namespace qrtln
