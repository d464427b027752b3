#include "client/recovery/plan_logs.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/recovery/plan.h"
#include "client/recovery/planning.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// Whether what is lost may come back where it was.
void check_log_folder(const RecoveryPlanning& planning, const RecoveryPlan& plan) {
    const std::string& folder = plan.server_logs.directory;
    struct stat status {};
    if (planning.is_proof())
        throw ClientError(
            ExitCode::logs_missing,
            fmt::format("the folder of the transaction logs, {}, is lost", for_terminal(folder)),
            "`qrtln recover` brings it back from the store");
    if (!is_below(folder, plan.data_directory) && ::stat(folder_of(folder).c_str(), &status) != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("the folder of the transaction logs, {}, is lost, and so is "
                                      "the one above it: nothing was touched",
                                      for_terminal(folder)),
                          "create it, or mount its disk");
}

// A disk that is not mounted looks like a lost one, and live databases would lose what only the
// logs on it have.
void require_that_logs_are_lost(const RecoveryPlanning& planning, RecoveryPlan& plan) {
    if (!plan.server_logs.missing || plan.logs.missing || planning.request.logs_lost ||
        !plan.in_place())
        return;
    auto replaced =
        std::find_if(plan.databases.begin(), plan.databases.end(), [&](const auto& database) {
            const PendingDatabase* pending = planning.pending(database.planned.item.path);
            return database.only_its_set.empty() && database.planned.existing &&
                   !(pending != nullptr && pending->lost);
        });
    if (replaced == plan.databases.end())
        return;
    plan.logs.missing =
        MissingLogs{0, 0,
                    fmt::format("the folder of the transaction logs, {}, is missing or empty, and "
                                "live databases such as {} would lose what is in no stored log",
                                for_terminal(plan.server_logs.directory),
                                for_terminal(replaced->planned.target)),
                    "mount the disk of the logs; if they are really lost, --logs-lost recovers to "
                    "the end of the stored ones",
                    std::nullopt};
}

void warn_about_logs(RecoveryPlan& plan) {
    const std::string directory = for_terminal(plan.server_logs.directory);
    if (plan.restores_log_folder() && !plan.logs.control)
        plan.warnings.emplace_back("no set has the log control file whole: the server may "
                                   "not take the transaction logs");
    if (plan.logs.missing)
        return;
    if (plan.restores_log_folder())
        plan.warnings.push_back(fmt::format(
            "the folder of the transaction logs, {}, is lost: what was committed after the newest "
            "set is not in any log{}",
            directory,
            plan.logs.ends ? fmt::format(" (that is after {})", utc_time(*plan.logs.ends)) : ""));
    if (!plan.server_logs.names_tell && !plan.server_logs.missing)
        plan.warnings.push_back(fmt::format(
            "the files in {} do not tell by their names which transaction logs they hold (the "
            "server uses them again): whether it has those after the stored ones, it says itself{}",
            directory,
            plan.logs.renamed ? "; logs whose names others have by now come back under new ones"
                              : ""));
}

} // namespace

ServerLogs look_at_logs(const NotesIni& ini, const StoredLogs& stored) {
    std::string directory = log_directory(ini);
    if (directory.empty() && !stored.logs.empty())
        directory = folder_of(stored.logs.back().item.path);
    ServerLogs logs = look_at_server_logs(directory);
    compare_with_stored(logs, stored, throw_if_interrupted);
    return logs;
}

void plan_logs(const RecoveryPlanning& planning, RecoveryPlan& plan) {
    RecoveryLogNeeds needs;
    needs.to = planning.request.to;
    for (const RecoveringDatabase& database : plan.databases)
        if (database.only_its_set.empty() &&
            (needs.oldest_set.empty() || database.planned.set < needs.oldest_set))
            needs.oldest_set = database.planned.set;
    if (needs.oldest_set.empty())
        return;
    plan.logs = find_recovery_logs(planning.stored_logs, plan.server_logs, needs);
    if (plan.restores_log_folder())
        check_log_folder(planning, plan);
    warn_about_logs(plan);
    require_that_logs_are_lost(planning, plan);
}

void require_logs(const RecoveryPlan& plan) {
    if (!plan.logs.missing)
        return;
    const MissingLogs& missing = *plan.logs.missing;
    std::string reachable;
    std::string hint;
    if (!missing.reason.empty())
        hint = missing.hint;
    else if (missing.reachable) {
        std::string time = utc_time(*missing.reachable);
        reachable = "; the latest time that can be reached is " + time;
        hint = fmt::format("--to {} recovers to that time; `qrtln verify` tells about damaged logs",
                           time);
    } else {
        hint = "the databases can be restored as they are in their sets: `qrtln restore "
               "--activate`; `qrtln verify` tells about damaged logs";
    }
    throw ClientError(
        ExitCode::logs_missing,
        fmt::format("cannot recover: {}{}: no database was touched", describe(missing), reachable),
        hint);
}

std::optional<LaterRecovery> plan_later_recovery(Store& store, const NotesIni& ini,
                                                 const std::vector<PlannedItem>& items) {
    RecoveryLogNeeds needs;
    for (const PlannedItem& planned : items) {
        bool placed =
            planned.action == RestoreAction::activate || planned.action == RestoreAction::place;
        if (placed && planned.item.kind == ItemKind::database && !is_not_logged(planned.item) &&
            (needs.oldest_set.empty() || planned.set < needs.oldest_set))
            needs.oldest_set = planned.set;
    }
    if (needs.oldest_set.empty())
        return std::nullopt;
    StoredLogs stored = load_stored_logs(store, ini.sets, {});
    LaterRecovery later;
    later.server_logs = look_at_logs(ini, stored);
    later.logs = find_recovery_logs(stored, later.server_logs, needs);
    return later;
}

} // namespace qrtln
