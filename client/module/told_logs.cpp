#include "client/module/told_logs.h"

#include "client/module/told_instance.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
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

std::string parse_whole_identity(const std::string& line, std::uint32_t number) {
    return identity_between(line, "Archive identity [", "[",
                            "], Log number " + std::to_string(number));
}

bool says_logs_not_listed(const std::string& line) {
    return line == "Getting transaction log ready to be archived fail";
}

bool says_archiving_in_progress(const std::string& line) {
    return line.find("ERR_TRANSLOG_ARCHIVE_IN_PROGRESS") != std::string::npos;
}

std::string logging_without_archive(const std::string& line) {
    if (line == "Lotus Notes has circular logging style enabled")
        return "circular transaction logging";
    if (line == "Lotus Notes has linear logging style enabled")
        return "linear transaction logging";
    if (line == "beginArchiveLogs(): Transactional logging is not in effect.")
        return "no transaction logging";
    return {};
}

void UnmarkedLogs::read(const std::string& line) {
    constexpr std::string_view number = ", Log number ";
    constexpr std::string_view failed = "finishArchiveLog(): NSFDoneArchivingLog call failed: ";
    if (line.starts_with("Call NSFDoneArchivingLog: ")) {
        std::size_t at = line.find(number);
        m_asked = at == std::string::npos ? "" : line.substr(at + number.size());
        m_asked.erase(std::min(m_asked.find_first_not_of("0123456789"), m_asked.size()));
    } else if (line.starts_with(failed) && m_reason.empty()) {
        m_reason = line.substr(failed.size());
        m_first = m_asked;
    } else if (line == "DB_CloseOperation(): finishArchiveLog() failed") {
        ++m_count;
    }
}

std::string UnmarkedLogs::problem() const {
    if (m_count == 0 && m_reason.empty())
        return {};
    std::string text = m_count > 1 ? std::to_string(m_count) + " transaction logs are"
                                   : std::string("a transaction log is");
    text += " not marked as archived";
    if (!m_first.empty())
        text += (m_count > 1 ? ", the first is number " : ", number ") + m_first;
    return fmt::format("{}: {}", text, m_reason.empty() ? "the module gave no reason" : m_reason);
}

} // namespace qrtln
