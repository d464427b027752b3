#include "client/recovery/restores.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/sets/manifest.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
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
    plan.databases_wait = true;
    if (recovery.into.empty())
        add_parent_folders(recovery, plan);
    if (recovery.server_logs.missing) {
        for (const StoredLog& log : recovery.logs.restore)
            plan.items.push_back(planned_log(recovery, log));
        if (recovery.logs.control)
            plan.items.push_back(planned_log(recovery, *recovery.logs.control));
    }
    for (const RecoveringDatabase& database : recovery.databases) {
        bool activated_later = recovery.into.empty() && !database.only_its_set.empty();
        if (!activated_later && !whole.contains(database.planned.item.path))
            plan.items.push_back(database.planned);
    }
    return plan;
}

RestorePlan plan_extents(const RecoveryPlan& recovery) {
    RestorePlan plan;
    plan.data_directory = recovery.data_directory;
    plan.extents_only = true;
    if (!recovery.server_logs.missing)
        for (const StoredLog& log : recovery.logs.restore)
            plan.items.push_back(planned_log(recovery, log));
    return plan;
}

RestorePlan plan_activation(const RecoveryPlan& recovery, const std::string& pending_folder,
                            const RecoveringDatabase& database) {
    RestorePlan plan;
    plan.data_directory = recovery.data_directory;
    plan.activate = true;
    plan.pending_folder = pending_folder;
    plan.items.push_back(database.planned);
    plan.items.back().action = RestoreAction::activate;
    return plan;
}

std::string set_aside(const PlannedItem& planned, std::string& problem) {
    std::string path = folder_of(planned.target);
    FileDescriptor folder =
        SafeFolder(planned.root)
            .open_folder(path == planned.root ? "" : path_below(path, planned.root), problem);
    if (!folder)
        return {};
    std::string name = name_of(planned.target);
    std::string other = name + ".damaged-" + utc_time_compact(std::time(nullptr));
    int result =
        ::renameat2(folder.get(), name.c_str(), folder.get(), other.c_str(), RENAME_NOREPLACE);
    struct stat status {};
    // Not every file system knows the flag.
    if (result != 0 && errno == EINVAL &&
        ::fstatat(folder.get(), other.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        result = ::renameat(folder.get(), name.c_str(), folder.get(), other.c_str());
    int error = result != 0 ? errno : flush_folder(folder.get());
    if (error != 0)
        problem = system_error_text(error);
    return problem.empty() ? path + "/" + other : std::string();
}

} // namespace qrtln
