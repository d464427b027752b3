#include "client/recovery/plan.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/domino/point_in_time.h"
#include "client/recovery/plan_databases.h"
#include "client/recovery/planning.h"
#include "client/sets/manifest.h"

#include <algorithm>
#include <strings.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// What of which set would come back, and where. A database must have been saved before the time
// that it is to be recovered to.
RestorePlan plan_items(const RecoveryPlanning& planning) {
    const RecoveryRequest& wanted = planning.request;
    RestoreRequest request;
    request.kind = RestoreKind::copies;
    request.selection = wanted.selection;
    request.selection.ended_before = wanted.to;
    request.selection.older_for_left_out = !wanted.selection.all;
    request.to = wanted.into;
    request.tmp_dir = wanted.tmp_dir;
    return make_restore_plan(planning.store, planning.ini, request);
}

// Takes databases, the files and folders beside them, and what is refused into the plan. Logs are
// planned apart.
void take_items(const RecoveryPlanning& planning, DatabasePlanner& databases, RecoveryPlan& plan) {
    RestorePlan items = plan_items(planning);
    plan.into = items.to;
    plan.warnings = std::move(items.warnings);
    plan.others = items;
    plan.others.items.clear();
    for (PlannedItem& planned : items.items) {
        ItemKind kind = planned.item.kind;
        bool log = kind == ItemKind::log || kind == ItemKind::log_control;
        if (log || (planning.is_proof() && kind != ItemKind::database))
            continue;
        if (planned.action == RestoreAction::refuse)
            plan.refused.push_back(std::move(planned));
        else if (kind == ItemKind::database)
            databases.take(std::move(planned));
        else
            plan.others.items.push_back(std::move(planned));
    }
}

// The plan, whose missing logs tell what the logs alone reach.
RecoveryPlan plan_recovery(Store& store, const NotesIni& ini, const RecoveryRequest& request,
                           const RecoverySituation& situation) {
    RecoveryPlanning planning{store, ini, request, situation,
                              load_stored_logs(store, ini.sets, request.selection.damaged)};
    RecoveryPlan plan;
    plan.kind = request.kind;
    plan.data_directory = ini.data_directory;
    struct stat status {};
    plan.data_directory_missing = ::stat(ini.data_directory.c_str(), &status) != 0;
    plan.to = request.to;
    plan.new_dbiid = request.new_dbiid;

    DatabasePlanner databases(planning, plan);
    take_items(planning, databases, plan);
    plan.server_logs = look_at_logs(ini, planning.stored_logs);
    bool unfinished = situation.log_folder_was_lost && !plan.server_logs.has_control;
    plan.server_logs.missing = plan.server_logs.missing || unfinished;
    databases.compare_instances();
    databases.refuse_what_reaches_others();
    plan_logs(planning, plan);
    plan.room = recovery_room(plan, request.tmp_dir, {});
    return plan;
}

// Which logs are missing for a recovery to that moment. Nothing when it cannot be planned: no set
// is that old.
struct Trial {
    std::optional<MissingLogs> missing;
};
std::optional<Trial> try_moment(Store& store, const NotesIni& ini, RecoveryRequest request,
                                const RecoverySituation& situation, std::int64_t moment) {
    request.to = moment;
    try {
        return Trial{plan_recovery(store, ini, request, situation).logs.missing};
    } catch (const ClientError&) {
        throw_if_interrupted();
        return std::nullopt;
    }
}

// The latest moment, up to the given one, that this very request can be recovered to: older sets
// may have to be taken for it, whose logs have gaps of their own.
std::optional<std::int64_t> find_reachable(Store& store, const NotesIni& ini,
                                           const RecoveryRequest& request,
                                           const RecoverySituation& situation,
                                           std::optional<std::int64_t> moment) {
    constexpr int attempts = 100; // each goes further back
    for (int attempt = 0; moment && attempt < attempts; ++attempt) {
        moment = shown_once_until(*moment); // the server is told local time
        std::optional<Trial> trial = try_moment(store, ini, request, situation, *moment);
        if (!trial)
            return std::nullopt;
        if (!trial->missing)
            return moment;
        std::optional<std::int64_t> earlier = trial->missing->reachable;
        moment = earlier && *earlier < *moment ? earlier : std::nullopt;
    }
    return std::nullopt;
}

} // namespace

bool is_template(const std::string& path) {
    constexpr std::string_view extension = ".ntf";
    return path.size() > extension.size() &&
           ::strcasecmp(path.c_str() + path.size() - extension.size(), extension.data()) == 0;
}

bool RecoveryPlan::rolls_forward() const {
    return std::any_of(databases.begin(), databases.end(), [](const RecoveringDatabase& database) {
        return database.only_its_set.empty();
    });
}

// Copies and originals are there at the same time, and so are the logs.
std::vector<RoomNeeded> recovery_room(const RecoveryPlan& plan, const std::string& tmp_dir,
                                      const std::map<std::string, std::string>& whole) {
    RoomCount rooms;
    for (const RecoveringDatabase& database : plan.databases) {
        const PlannedItem& planned = database.planned;
        std::uint64_t old = database.set_aside ? 0 : occupied_bytes(planned.existing);
        std::uint64_t growth = planned.item.size > old ? planned.item.size - old : 0;
        bool waits = whole.contains(planned.item.path);
        if (plan.in_place())
            rooms.at(absolute_path(tmp_dir)).needed += waits ? 0 : planned.item.size;
        if (plan.in_place())
            rooms.at(folder_of(planned.target)).needed += growth;
        else if (!waits) // an old one is there until the new one is whole
            rooms.at(folder_of(planned.target)).needed += planned.item.size;
    }
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            rooms.at(folder_of(planned.target)).needed += planned.item.size;
    for (const StoredLog& log : plan.logs.restore)
        rooms.at(folder_of(log_target(plan, log))).needed += log.item.size;
    return rooms.list();
}

std::string log_target(const RecoveryPlan& plan, const StoredLog& log) {
    return log_target(plan.server_logs, log);
}

RecoveryPlan make_recovery_plan(Store& store, const NotesIni& ini, const RecoveryRequest& request,
                                const RecoverySituation& situation) {
    RecoveryPlan plan = plan_recovery(store, ini, request, situation);
    if (plan.logs.missing)
        plan.logs.missing->reachable =
            find_reachable(store, ini, request, situation, plan.logs.missing->reachable);
    return plan;
}

} // namespace qrtln
