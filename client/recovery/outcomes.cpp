#include "client/recovery/outcomes.h"

#include "client/recovery/plan.h"

#include <fmt/format.h>
#include <utility>

namespace qrtln {

namespace {

RecoveryOutcome outcome_of(RolledForward::Verdict verdict) {
    switch (verdict) {
    case RolledForward::Verdict::recovered:
        return RecoveryOutcome::recovered;
    case RolledForward::Verdict::perhaps:
        return RecoveryOutcome::uncertain;
    case RolledForward::Verdict::not_recovered:
        break;
    }
    return RecoveryOutcome::failed;
}

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
    if (std::string log = parse_missing_log(line); !log.empty())
        m_missing_log = log;
    std::optional<RolledForward> database = parse_rolled_forward(
        line, [this](const std::string& path) { return m_told.contains(path); });
    if (!database)
        return;
    Told told{outcome_of(database->verdict), database->reason};
    const NotRolledForward meaning = meaning_of(told.reason);
    if (meaning == NotRolledForward::not_taken_offline && !m_status.text.empty())
        told.reason += fmt::format(": {}: {}", m_status.text, advice_on(m_status));
    else if (meaning == NotRolledForward::not_online && !m_status.text.empty())
        told.reason += ": " + m_status.text;
    m_told[database->path] = std::move(told);
    m_status = {};
}

} // namespace qrtln
