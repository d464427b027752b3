#include "client/commands/recover_text.h"

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/domino/database_names.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

// Up to which moment a database is recovered, for a person.
std::string reach_text(const DatabaseRecovery& database, const RecoveryResult& result,
                       const std::optional<std::int64_t>& to) {
    bool ends_early = result.logs_end_early && !(to && result.logs_end && *to <= *result.logs_end);
    switch (database.outcome) {
    case RecoveryOutcome::uncertain:
        if (!database.rolled_forward)
            return "its set at least, ended " + utc_time(database.set_ended);
        [[fallthrough]];
    case RecoveryOutcome::recovered:
        if (ends_early)
            return "the end of the stored logs" +
                   (result.logs_end ? ", " + utc_time(*result.logs_end) : "");
        if (to && (database.same_instance || *to < database.same_until))
            return utc_time(*to);
        // One that is lost may have become another instance since its newest copy.
        if (to)
            return utc_time(*to) + ", as far as logged for the saved instance";
        return database.same_instance ? "the last committed change"
                                      : "the last change logged for the saved instance";
    case RecoveryOutcome::only_its_set:
        return "its set, ended " + utc_time(database.set_ended);
    case RecoveryOutcome::in_place:
        return "by an earlier run";
    case RecoveryOutcome::waiting:
    case RecoveryOutcome::failed:
        break;
    }
    return "-";
}

} // namespace

int exit_code_of(const RecoveryResult& result) {
    if (!result.damaged.empty())
        return static_cast<int>(ExitCode::damage_found);
    bool short_of =
        !result.failed.empty() ||
        std::any_of(result.databases.begin(), result.databases.end(),
                    [](const DatabaseRecovery& database) { return database.falls_short(); }) ||
        // A file is only as it was in the older set; of a database both reach the same end.
        std::any_of(result.replaced.begin(), result.replaced.end(),
                    [](const FailedRestore& replaced) { return !is_database_name(replaced.path); });
    return static_cast<int>(short_of ? ExitCode::items_failed : ExitCode::complete);
}

int exit_code_of(const RecoveryPlan& plan) {
    if (plan.logs.missing)
        return static_cast<int>(ExitCode::logs_missing);
    for (const RoomNeeded& room : plan.room)
        if (room.available < room.needed)
            return static_cast<int>(ExitCode::failed);
    bool logs_end_early = plan.server_logs.missing && !plan.logs.restore.empty() &&
                          !(plan.to && plan.logs.ends && *plan.to <= *plan.logs.ends);
    bool doubtful = std::any_of(
        plan.databases.begin(), plan.databases.end(), [&](const RecoveringDatabase& database) {
            const std::string& only = database.only_its_set;
            bool less = only.empty() ? logs_end_early
                                     : only != not_logged_reason && only != template_reason;
            return !database.doubt.empty() || less;
        });
    return static_cast<int>(plan.refused.empty() && !doubtful ? ExitCode::complete
                                                              : ExitCode::items_failed);
}

std::string recovery_text(const RecoveryResult& result, const std::optional<std::int64_t>& to) {
    Table table({"DATABASE", "OUTCOME", "RECOVERED TO", "SET", "REASON"});
    for (const DatabaseRecovery& database : result.databases)
        table.add({for_terminal(database.target), outcome_name(database.outcome),
                   reach_text(database, result, to),
                   database.set.empty() ? "-" : for_terminal(database.set),
                   database.reason.empty() ? "-" : for_terminal(database.reason)});
    std::string text = result.databases.empty() ? std::string() : table.text();
    if (!result.restored.empty())
        text += std::to_string(result.restored.size()) +
                " files, folders and transaction logs that were missing came back\n";
    if (!result.pending_folder.empty())
        text += fmt::format(
            "what waits is in {}: when what kept it back is mended (a database in use:\nshut down "
            "its task, or the server), `qrtln recover` goes on with it\n",
            for_terminal(result.pending_folder));
    for (const FailedRestore& replaced : result.replaced)
        text += fmt::format("damaged: {}: {}\n", for_terminal(replaced.path),
                            for_terminal(replaced.reason));
    for (const FailedRestore& damaged : result.damaged)
        text += fmt::format("damaged, not recovered: {}: {}\n", for_terminal(damaged.path),
                            for_terminal(damaged.reason));
    for (const FailedRestore& failed : result.failed)
        text +=
            fmt::format("failed: {}: {}\n", for_terminal(failed.path), for_terminal(failed.reason));
    return text;
}

nlohmann::json recovery_json(const RecoveryResult& result, const std::optional<std::int64_t>& to) {
    nlohmann::json databases = nlohmann::json::array();
    for (const DatabaseRecovery& database : result.databases)
        databases.push_back(
            {{"path", printable_utf8(database.path)},
             {"target", printable_utf8(database.target)},
             {"set", database.set},
             {"set_ended", database.set_ended == 0 ? nlohmann::json()
                                                   : nlohmann::json(utc_time(database.set_ended))},
             {"outcome", outcome_name(database.outcome)},
             {"recovered_to", reach_text(database, result, to)},
             {"reason", printable_utf8(database.reason)}});
    return {{"databases", databases},
            {"restored", printable_list(result.restored)},
            {"failed", failures_json(result.failed)},
            {"damaged", failures_json(result.damaged)},
            {"replaced", failures_json(result.replaced)},
            {"pending_folder", printable_utf8(result.pending_folder)},
            {"bytes", result.bytes},
            {"warnings", printable_list(result.warnings)}};
}

} // namespace qrtln
