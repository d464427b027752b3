// Texts: bytes of unknown encoding made printable, numbers and times for people.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace qrtln {

// The text without these characters at its ends.
std::string_view trimmed(std::string_view text, std::string_view blanks);

// Whether the bytes are well-formed UTF-8.
bool is_utf8(std::string_view bytes);

// The bytes as UTF-8: each byte that is not part of a well-formed character becomes "\xNN".
std::string printable_utf8(std::string_view bytes);

// The bytes as one line for a terminal: as above, and control characters, those that change the
// direction of text among them, become "\xNN" too.
std::string for_terminal(std::string_view bytes);

// A JSON document, in UTF-8, with the control characters that JSON leaves as they are as "\uNNNN".
std::string json_for_terminal(std::string_view json);

std::string to_hex(std::string_view bytes);
// Lower-case hexadecimal digits back to bytes; nothing for anything else.
std::optional<std::string> from_hex(std::string_view digits);

// "1.5 GiB", "17 bytes".
std::string human_bytes(std::uint64_t bytes);

// "1 h 02 min", "3 min 20 s", "4 s".
std::string human_duration(std::int64_t seconds);

// "2026-11-21T02:49:23Z".
std::string utc_time(std::time_t time);

// "20261121T024923Z", which sorts by time.
inline constexpr std::size_t compact_time_length = 16;
std::string utc_time_compact(std::time_t time);

} // namespace qrtln
