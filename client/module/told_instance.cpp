#include "client/module/told_instance.h"

namespace qrtln {

std::string identity_between(std::string_view line, std::string_view beginning,
                             std::string_view before, std::string_view end) {
    constexpr std::string_view none = "00000000-00000000 0000000000000000";
    std::size_t start = line.rfind(before);
    if (!line.starts_with(beginning) || start == std::string_view::npos || !line.ends_with(end))
        return {};
    line.remove_prefix(start + before.size());
    line.remove_suffix(end.size());
    return line.size() != none.size() || line == none ? std::string() : std::string(line);
}

std::string parse_prepared_dbiid(const std::string& line) {
    return identity_between(line, "QRTLN_PrepareForBackup: got database [", "], DBIID [", "])");
}

std::optional<AskedDatabase> parse_asked_database(const std::string& line) {
    using State = AskedDatabase::State;
    if (std::string dbiid =
            identity_between(line, "isDatabaseLogged: Database [", "] is logged, DBIID ", "");
        !dbiid.empty())
        return AskedDatabase{State::logged, dbiid};
    if (line == "The database is not being logged")
        return AskedDatabase{State::not_logged, {}};
    if (line.starts_with("Notes API NSFDbOpen() failure on file: "))
        return AskedDatabase{State::unopenable, {}};
    return std::nullopt;
}

} // namespace qrtln
