#include "client/recovery/roll_forward.h"

#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/module/control_variables.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/placing.h"

#include <fmt/format.h>
#include <optional>
#include <string_view>

namespace qrtln {

// One database that the server cannot recover must not keep the others from it.
void RollForward::run(Databases databases) {
    while (!databases.empty()) {
        throw_if_interrupted();
        databases = run_once(databases);
        m_keeper.strike_what_is_in_place(m_report.databases());
    }
}

std::vector<std::string> RollForward::variables(const Databases& databases,
                                                const std::string& temporary) const {
    std::vector<std::string> variables = {tmp_dir_variable(temporary), recovery_variable,
                                          rollforward_variable(m_plan.to)};
    if (m_plan.new_dbiid)
        variables.emplace_back(new_dbiid_variable);
    if (!m_plan.in_place())
        variables.push_back(relocation_variable(m_into.path(), false));
    for (const RecoveringDatabase* database : databases)
        variables.push_back(database_variable(database_value(database->planned.item.path)));
    return variables;
}

// Returns those that are to be tried again, without one that made the whole recovery fail.
RollForward::Databases RollForward::run_once(const Databases& databases) {
    std::vector<std::string> targets;
    targets.reserve(databases.size());
    for (const RecoveringDatabase* database : databases)
        targets.push_back(m_into.for_module(database->planned.target));
    ToldOutcomes told(targets);
    std::optional<TemporaryDirectory> temporary;
    if (!m_plan.in_place())
        temporary.emplace(absolute_path(m_tmp_dir), m_plan.data_directory);
    ModuleSession session(
        m_context, [&](const std::string& line) { told.read(line); },
        [&](const std::string& line) { told.read_trace(line); });
    int status = session.init(
        DB_TYPE_RST, DB_LEVEL_FULL,
        variables(databases, temporary ? temporary->path() : m_keeper.journal().pending_folder));

    Round round;
    if (status != DB_NUM_I_COMPLETE)
        round.reason = m_into.in_text(session.reason());
    if (!told.missing_log().empty())
        round.failure = fmt::format(" (the transaction log {} is missing)", told.missing_log());
    for (const RecoveringDatabase* database : databases) {
        std::optional<ToldOutcomes::Told> outcome =
            told.of(m_into.for_module(database->planned.target));
        if (outcome)
            take_outcome(*database, *outcome, round);
        else
            take_silence(*database, round);
    }
    if (!round.again.empty() &&
        !round.one_failed) { // no progress: nothing names the one that fails
        for (const RecoveringDatabase* database : round.again)
            m_report.tell(*database,
                          m_plan.in_place() ? RecoveryOutcome::waiting : RecoveryOutcome::failed,
                          round.reason);
        round.again.clear();
    }
    return round.again;
}

bool RollForward::copy_waits(const RecoveringDatabase& database) const {
    return m_plan.in_place() && exists(m_keeper.copy_of(m_plan, database));
}

void RollForward::take_silence(const RecoveringDatabase& database, const Round& round) {
    m_report.tell(database,
                  !m_plan.in_place()     ? RecoveryOutcome::failed
                  : copy_waits(database) ? RecoveryOutcome::waiting
                                         : RecoveryOutcome::uncertain,
                  round.reason.empty() ? "the module did not tell what became of it"
                                       : round.reason);
}

void RollForward::take_outcome(const RecoveringDatabase& database, const ToldOutcomes::Told& told,
                               Round& round) {
    const std::string reason = m_into.in_text(told.reason);
    const NotRolledForward meaning = meaning_of(reason);
    const std::string& path = database.planned.item.path;
    if (told.outcome == RecoveryOutcome::recovered) {
        tell_recovered(database);
        give_owner_and_mode(m_plan, database, m_keeper, m_report);
    } else if (told.outcome != RecoveryOutcome::failed ||
               meaning == NotRolledForward::no_new_dbiid) {
        m_report.tell(database, RecoveryOutcome::uncertain, reason).rolled_forward = false;
        give_owner_and_mode(m_plan, database, m_keeper, m_report);
    } else if (meaning == NotRolledForward::failed_elsewhere) {
        round.again.push_back(&database);
    } else if (meaning == NotRolledForward::unknown_to_log) {
        m_report.tell(database, RecoveryOutcome::only_its_set,
                      is_template(path) ? template_reason : reason);
        if (m_plan.in_place())
            m_owed->add(m_plan.data_directory, path, true);
        give_owner_and_mode(m_plan, database, m_keeper, m_report);
    } else {
        m_report.tell(database,
                      copy_waits(database) ? RecoveryOutcome::waiting : RecoveryOutcome::failed,
                      round.one_failed ? reason : reason + round.failure);
        round.one_failed = true;
    }
}

void RollForward::tell_recovered(const RecoveringDatabase& database) {
    std::string doubt = m_keeper.doubt_about(database);
    m_report.tell(database, doubt.empty() ? RecoveryOutcome::recovered : RecoveryOutcome::uncertain,
                  doubt);
}

} // namespace qrtln
