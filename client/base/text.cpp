#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace qrtln {

namespace {

// The length of the well-formed character at the start of the text, or 0 (Unicode, table 3-7).
std::size_t utf8_length(std::string_view text) {
    auto at = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    auto between = [](unsigned value, unsigned low, unsigned high) {
        return value >= low && value <= high;
    };
    unsigned first = at(0);
    if (first < 0x80)
        return 1;
    if (between(first, 0xC2, 0xDF))
        return between(at(1), 0x80, 0xBF) ? 2 : 0;
    if (between(first, 0xE0, 0xEF)) {
        unsigned low = first == 0xE0 ? 0xA0 : 0x80;
        unsigned high = first == 0xED ? 0x9F : 0xBF;
        return between(at(1), low, high) && between(at(2), 0x80, 0xBF) ? 3 : 0;
    }
    if (between(first, 0xF0, 0xF4)) {
        unsigned low = first == 0xF0 ? 0x90 : 0x80;
        unsigned high = first == 0xF4 ? 0x8F : 0xBF;
        return between(at(1), low, high) && between(at(2), 0x80, 0xBF) && between(at(3), 0x80, 0xBF)
                   ? 4
                   : 0;
    }
    return 0;
}

// The well-formed character of this length at the start of the text.
char32_t character(std::string_view text, std::size_t length) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    if (length == 1)
        return byte(0);
    char32_t value = byte(0) & (0xFFU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i)
        value = value << 6 | (byte(i) & 0x3FU);
    return value;
}

// What a terminal may obey, or what makes a line read as another one.
bool is_control(char32_t value) {
    return value < 0x20 || (value >= 0x7F && value < 0xA0) || value == 0x061C || value == 0x200E ||
           value == 0x200F || (value >= 0x2028 && value <= 0x202E) ||
           (value >= 0x2066 && value <= 0x2069);
}

std::string escape(std::string_view bytes, bool controls) {
    std::string text;
    while (!bytes.empty()) {
        std::size_t length = utf8_length(bytes);
        if (length == 0 || (controls && is_control(character(bytes, length)))) {
            for (std::size_t i = 0; i < (length == 0 ? 1 : length); ++i) {
                std::array<char, 5> code{};
                std::snprintf(code.data(), code.size(), "\\x%02x",
                              static_cast<unsigned>(static_cast<unsigned char>(bytes[i])));
                text += code.data();
            }
        } else {
            text += bytes.substr(0, length);
        }
        bytes.remove_prefix(length == 0 ? 1 : length);
    }
    return text;
}

std::string format_time(std::time_t time, const char* format) {
    std::tm broken{};
    ::gmtime_r(&time, &broken);
    std::array<char, 40> text{};
    // The formats are the two literals below.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::size_t length = std::strftime(text.data(), text.size(), format, &broken);
#pragma GCC diagnostic pop
    return {text.data(), length};
}

} // namespace

std::string_view trimmed(std::string_view text, std::string_view blanks) {
    std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool is_utf8(std::string_view bytes) {
    while (!bytes.empty()) {
        std::size_t length = utf8_length(bytes);
        if (length == 0)
            return false;
        bytes.remove_prefix(length);
    }
    return true;
}

std::string printable_utf8(std::string_view bytes) {
    return escape(bytes, false);
}

std::string for_terminal(std::string_view bytes) {
    return escape(bytes, true);
}

std::string json_for_terminal(std::string_view json) {
    std::string text;
    for (std::size_t length = 0; !json.empty(); json.remove_prefix(length)) {
        length = std::max<std::size_t>(1, utf8_length(json));
        char32_t value = character(json, length);
        if (value >= 0x7F && is_control(value)) {
            std::array<char, 11> code{};
            std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(value));
            text += code.data();
        } else {
            text += json.substr(0, length);
        }
    }
    return text;
}

std::string to_hex(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (char byte : bytes) {
        unsigned value = static_cast<unsigned char>(byte);
        text += digits[value >> 4];
        text += digits[value & 15];
    }
    return text;
}

std::optional<std::string> from_hex(std::string_view digits) {
    if (digits.size() % 2 != 0)
        return std::nullopt;
    auto value = [](char digit) {
        if (digit >= '0' && digit <= '9')
            return digit - '0';
        return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
    };
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        int high = value(digits[i]);
        int low = value(digits[i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}

std::string human_bytes(std::uint64_t bytes) {
    static constexpr std::array units = {"KiB", "MiB", "GiB", "TiB", "PiB"};
    if (bytes < 1024)
        return std::to_string(bytes) + " bytes";
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (value /= 1024; value >= 1024 && unit + 1 < units.size(); ++unit)
        value /= 1024;
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, units[unit]);
    return text.data();
}

std::string human_duration(std::int64_t seconds) {
    std::array<char, 60> text{};
    long long value = seconds < 0 ? 0 : seconds;
    if (value >= 3600)
        std::snprintf(text.data(), text.size(), "%lld h %02lld min", value / 3600,
                      value % 3600 / 60);
    else if (value >= 60)
        std::snprintf(text.data(), text.size(), "%lld min %02lld s", value / 60, value % 60);
    else
        std::snprintf(text.data(), text.size(), "%lld s", value);
    return text.data();
}

std::string utc_time(std::time_t time) {
    return format_time(time, "%Y-%m-%dT%H:%M:%SZ");
}

std::string utc_time_compact(std::time_t time) {
    return format_time(time, "%Y%m%dT%H%M%SZ");
}

} // namespace qrtln
