// Many small records of numbers as one text, "0:17+3 1:0+1": a JSON array of them would take ten
// times its memory.
#pragma once

#include <array>
#include <charconv>
#include <cstdint>
#include <fmt/format.h>
#include <iterator>
#include <string>
#include <string_view>

namespace qrtln {

// Adds a record; `separators` stand between its numbers, one character each.
template <std::size_t count>
void add_numbers(std::string& text, std::string_view separators,
                 const std::array<std::uint64_t, count>& numbers) {
    if (!text.empty())
        text += ' ';
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0)
            text += separators[i - 1];
        fmt::format_to(std::back_inserter(text), "{}", numbers[i]);
    }
}

// Gives each record to `take`, which returns whether it is possible. Returns false for a text that
// add_numbers does not write, or when `take` does.
template <std::size_t count, typename Take>
bool read_numbers(std::string_view text, std::string_view separators, Take&& take) {
    const char* at = text.data();
    const char* end = at + text.size();
    while (at != end) {
        std::array<std::uint64_t, count> numbers{};
        for (std::size_t i = 0; i < count; ++i) {
            auto [behind, error] = std::from_chars(at, end, numbers[i]);
            bool leading_zero = behind - at > 1 && *at == '0';
            if (error != std::errc() || leading_zero)
                return false;
            at = behind;
            if (i + 1 < count && (at == end || *at++ != separators[i]))
                return false;
        }
        if (!take(numbers) || (at != end && (*at++ != ' ' || at == end)))
            return false;
    }
    return true;
}

} // namespace qrtln
