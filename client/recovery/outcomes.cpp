#include "client/recovery/outcomes.h"

#include "client/recovery/plan.h"

#include <array>
#include <utility>

namespace qrtln {

namespace {

// Reasons that the module gives without the server's.
constexpr std::string_view not_taken = "it cannot be taken offline";
constexpr std::string_view not_online = "it is in place, but could not be brought online";

} // namespace

const char* outcome_name(RecoveryOutcome outcome) {
    switch (outcome) {
    case RecoveryOutcome::recovered:
        return "recovered";
    case RecoveryOutcome::only_its_set:
        return "as in its set";
    case RecoveryOutcome::uncertain:
        return "perhaps recovered";
    case RecoveryOutcome::in_place:
        return "in place before";
    case RecoveryOutcome::waiting:
        return "waiting";
    case RecoveryOutcome::failed:
        break;
    }
    return "failed";
}

bool DatabaseRecovery::falls_short() const {
    switch (outcome) {
    case RecoveryOutcome::recovered:
        return false;
    case RecoveryOutcome::in_place:
        return !reason.empty();
    case RecoveryOutcome::only_its_set:
        return reason != not_logged_reason && reason != template_reason;
    case RecoveryOutcome::uncertain:
    case RecoveryOutcome::waiting:
    case RecoveryOutcome::failed:
        break;
    }
    return true;
}

void ToldOutcomes::read_trace(const std::string& line) {
    if (std::optional<ServerStatus> status = parse_server_status(line))
        m_status = *status;
}

void ToldOutcomes::read(std::string_view line) {
    constexpr std::string_view missing = "ROLLFORWARD: missing transaction log [";
    if (line.starts_with(missing)) {
        m_missing_log = line.substr(missing.size(), line.rfind(']') - missing.size());
        return;
    }
    constexpr std::array<std::pair<std::string_view, RecoveryOutcome>, 3> forms = {
        {{"ROLLFORWARD: recovered [", RecoveryOutcome::recovered},
         {"ROLLFORWARD: NOT recovered [", RecoveryOutcome::failed},
         {"ROLLFORWARD: perhaps recovered [", RecoveryOutcome::uncertain}}};
    for (const auto& [beginning, outcome] : forms) {
        if (!line.starts_with(beginning))
            continue;
        std::string_view rest = line.substr(beginning.size());
        // A path may hold brackets, even those of another one: the longest that is known counts.
        for (std::size_t end = rest.rfind(']'); end != std::string_view::npos && end > 0;
             end = rest.rfind(']', end - 1)) {
            auto told = m_told.find(std::string(rest.substr(0, end)));
            std::string_view reason = rest.substr(end + 1);
            if (told == m_told.end() || !(reason.empty() || reason.starts_with(": ")))
                continue;
            reason.remove_prefix(reason.empty() ? 0 : 2);
            told->second = Told{outcome, std::string(reason)};
            if (reason == not_taken && !m_status.text.empty())
                told->second->reason += ": " + m_status.text + ": " + advice_on(m_status);
            else if (reason == not_online && !m_status.text.empty())
                told->second->reason += ": " + m_status.text;
            m_status = {};
            return;
        }
    }
}

} // namespace qrtln
