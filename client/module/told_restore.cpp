#include "client/module/told_restore.h"

#include <utility>

namespace qrtln {

bool says_not_taken_offline(std::string_view line) {
    return line.starts_with("QRTLN_Activate(): WARNING: Please shutdown");
}

bool says_taken_offline(const std::string& line) {
    return line.starts_with("TakeDbsOffline(): Database ") && line.ends_with(" taken offline");
}

std::optional<RolledForward>
parse_rolled_forward(std::string_view line,
                     const std::function<bool(const std::string& path)>& is_known) {
    using Verdict = RolledForward::Verdict;
    constexpr std::pair<std::string_view, Verdict> forms[] = {
        {"ROLLFORWARD: recovered [", Verdict::recovered},
        {"ROLLFORWARD: NOT recovered [", Verdict::not_recovered},
        {"ROLLFORWARD: perhaps recovered [", Verdict::perhaps},
    };
    for (const auto& [beginning, verdict] : forms) {
        if (!line.starts_with(beginning))
            continue;
        std::string_view rest = line.substr(beginning.size());
        for (std::size_t end = rest.rfind(']'); end != std::string_view::npos && end > 0;
             end = rest.rfind(']', end - 1)) {
            std::string path(rest.substr(0, end));
            std::string_view reason = rest.substr(end + 1);
            if (!is_known(path) || !(reason.empty() || reason.starts_with(": ")))
                continue;
            reason.remove_prefix(reason.empty() ? 0 : 2);
            return RolledForward{verdict, std::move(path), std::string(reason)};
        }
    }
    return std::nullopt;
}

std::string parse_missing_log(std::string_view line) {
    constexpr std::string_view missing = "ROLLFORWARD: missing transaction log [";
    return line.starts_with(missing)
               ? std::string(line.substr(missing.size(), line.rfind(']') - missing.size()))
               : std::string();
}

NotRolledForward meaning_of(std::string_view reason) {
    if (reason == "it cannot be taken offline")
        return NotRolledForward::not_taken_offline;
    if (reason == "it is in place, but could not be brought online")
        return NotRolledForward::not_online;
    if (reason == "the recovery failed at another database")
        return NotRolledForward::failed_elsewhere;
    if (reason.starts_with("the transaction log does not know it"))
        return NotRolledForward::unknown_to_log;
    if (reason.starts_with("the server gives it no new DBIID"))
        return NotRolledForward::no_new_dbiid;
    return NotRolledForward::other;
}

} // namespace qrtln
