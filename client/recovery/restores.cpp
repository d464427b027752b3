#include "client/recovery/restores.h"

#include "client/base/paths.h"
#include "client/sets/manifest.h"

#include <set>
#include <utility>

namespace qrtln {

namespace {

PlannedItem planned_log(const RecoveryPlan& recovery, const StoredLog& log) {
    PlannedItem planned;
    planned.set = log.set;
    planned.item = log.item;
    planned.action = RestoreAction::write;
    planned.target = planned.announced = log_target(recovery, log);
    const std::string& folder = recovery.server_logs.directory;
    planned.root = !recovery.server_logs.missing               ? folder
                   : is_below(folder, recovery.data_directory) ? recovery.data_directory
                                                               : folder_of(folder);
    return planned;
}

// The module would make them too, without a look at links and without an owner.
void add_parent_folders(const RecoveryPlan& recovery, RestorePlan& plan) {
    std::set<std::string> planned_folders;
    for (const PlannedItem& planned : plan.items)
        if (planned.action == RestoreAction::create_folder)
            planned_folders.insert(planned.target);
    for (const RecoveringDatabase& database : recovery.databases) {
        std::string folder = folder_of(database.planned.target);
        if (exists(folder) || !planned_folders.insert(folder).second)
            continue;
        PlannedItem parent;
        parent.item.path = parent.announced = parent.target = folder;
        parent.item.kind = ItemKind::directory;
        parent.action = RestoreAction::create_folder;
        parent.root = database.planned.root;
        plan.items.push_back(std::move(parent));
    }
}

} // namespace

RestorePlan plan_copies(const RecoveryPlan& recovery, const std::string& pending_folder,
                        const std::map<std::string, std::string>& whole) {
    RestorePlan plan = recovery.others;
    plan.pending_folder = pending_folder;
    plan.kind = RestoreKind::copies;
    if (recovery.in_place())
        add_parent_folders(recovery, plan);
    if (recovery.server_logs.missing) {
        for (const StoredLog& log : recovery.logs.restore)
            plan.items.push_back(planned_log(recovery, log));
        if (recovery.logs.control)
            plan.items.push_back(planned_log(recovery, *recovery.logs.control));
    }
    for (const RecoveringDatabase& database : recovery.databases) {
        bool activated_later = recovery.in_place() && !database.only_its_set.empty();
        if (!activated_later && !whole.contains(database.planned.item.path))
            plan.items.push_back(database.planned);
    }
    return plan;
}

RestorePlan plan_extents(const RecoveryPlan& recovery) {
    RestorePlan plan;
    plan.data_directory = recovery.data_directory;
    plan.kind = RestoreKind::logs;
    if (!recovery.server_logs.missing)
        for (const StoredLog& log : recovery.logs.restore)
            plan.items.push_back(planned_log(recovery, log));
    return plan;
}

RestorePlan plan_activation(const RecoveryPlan& recovery, const std::string& pending_folder,
                            const RecoveringDatabase& database) {
    RestorePlan plan;
    plan.data_directory = recovery.data_directory;
    plan.kind = RestoreKind::activation;
    plan.activate = true;
    plan.pending_folder = pending_folder;
    plan.items.push_back(database.planned);
    plan.items.back().action = RestoreAction::activate;
    return plan;
}

} // namespace qrtln
