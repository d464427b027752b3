#include "client/module_log.h"

#include <charconv>
#include <string_view>

namespace qrtln {

std::optional<AnnouncedLog> parse_log_announcement(const std::string& line) {
    std::string_view rest = line;
    auto skip = [&](std::string_view text) {
        bool found = rest.starts_with(text);
        if (found)
            rest.remove_prefix(text.size());
        return found;
    };
    AnnouncedLog log;
    if (skip("Back up active archive ID "))
        log.identity.active = true;
    else if (!skip("Archive ID "))
        return std::nullopt;
    constexpr std::size_t id_digits = 8;
    if (rest.find_first_not_of("0123456789abcdef") != id_digits)
        return std::nullopt;
    log.identity.archive_id = rest.substr(0, id_digits);
    rest.remove_prefix(id_digits);
    if (!skip(", Log number "))
        return std::nullopt;
    auto [end, error] =
        std::from_chars(rest.data(), rest.data() + rest.size(), log.identity.number);
    if (error != std::errc())
        return std::nullopt;
    rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
    if (!skip(", log path [") || !rest.ends_with(']'))
        return std::nullopt;
    log.path = rest.substr(0, rest.size() - 1);
    return log;
}

bool says_archiving_in_progress(const std::string& line) {
    return line.find("ERR_TRANSLOG_ARCHIVE_IN_PROGRESS") != std::string::npos;
}

} // namespace qrtln
