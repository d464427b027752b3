#include "client/recovery/placing.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/recovery/restores.h"
#include "client/restore/operation.h"
#include "client/restore/safe_file.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// Renames what lies at the item's target to NAME.damaged-TIME in its folder, replacing nothing, and
// flushes the folder. Returns the new full path, or an empty one with the problem.
std::string set_aside(const PlannedItem& planned, std::string& problem) {
    std::string path = folder_of(planned.target);
    FileDescriptor folder =
        SafeFolder(planned.root)
            .open_folder(path == planned.root ? "" : path_below(path, planned.root), problem);
    if (!folder)
        return {};
    std::string name = name_of(planned.target);
    std::string other = fmt::format("{}.damaged-{}", name, utc_time_compact(std::time(nullptr)));
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

// Nothing is in its place any more; the set need not tell its owner and mode.
void forget_original(PlannedItem& planned) {
    if (!planned.item.has_metadata) {
        planned.item.has_metadata = true;
        planned.item.mode = planned.existing->st_mode & 07777;
        planned.item.uid = planned.existing->st_uid;
        planned.item.gid = planned.existing->st_gid;
        planned.item.mtime_ns = planned.existing->st_mtim.tv_sec * std::int64_t{1'000'000'000};
    }
    planned.existing.reset();
}

std::string reason_of(const RestoreResult& result) {
    return !result.waiting.empty()   ? result.waiting.front().reason
           : !result.failed.empty()  ? result.failed.front().reason
           : !result.damaged.empty() ? result.damaged.front().reason
                                     : "it was not put in place";
}

} // namespace

// The server cannot take offline what is no database any more, so that nothing could replace it.
void set_destroyed_aside(RecoveryPlan& plan, RecoveryReport& report) {
    for (RecoveringDatabase& database : plan.databases) {
        PlannedItem& planned = database.planned;
        if (!database.set_aside)
            continue;
        std::string problem;
        std::string name = set_aside(planned, problem);
        if (!problem.empty()) {
            report.warn(fmt::format("{}: is no database any more, and cannot be set aside: {}",
                                    planned.target, problem));
            continue;
        }
        report.warn(fmt::format("{}: was no database any more, and is set aside as {}",
                                planned.target, name));
        forget_original(planned);
    }
}

void give_owner_and_mode(const RecoveryPlan& plan, const RecoveringDatabase& database,
                         const JournalKeeper& keeper, RecoveryReport& report) {
    const PlannedItem& planned = database.planned;
    if (plan.in_place() && planned.existing && !keeper.was_lost(planned.item.path))
        return;
    std::string problem;
    FileDescriptor file =
        SafeFolder(planned.root).open_file(path_below(planned.target, planned.root), problem);
    struct stat status {};
    if (file && ::fstat(file.get(), &status) == 0) {
        ManifestItem item = planned.item;
        item.mtime_ns = modification_time_ns(status);
        problem = apply_metadata(file.get(), item);
    }
    if (!problem.empty())
        report.warn(planned.target + ": " + problem);
}

// One at a time, and struck out at once: a second run must not put it back over later changes.
void put_only_its_set_in_place(const OperationContext& context, const RecoveryPlan& plan,
                               JournalKeeper& keeper, RecoveryReport& report) {
    if (!plan.in_place())
        return;
    for (const RecoveringDatabase& database : plan.databases) {
        if (database.only_its_set.empty())
            continue;
        RestoreResult result = run_restore_operation(
            context, plan_activation(plan, keeper.journal().pending_folder, database));
        report.result().bytes += result.bytes;
        report.warn(result.warnings);
        if (!result.restored.empty()) {
            report.tell(database, RecoveryOutcome::only_its_set, database.only_its_set);
            keeper.strike_what_is_in_place(report.databases());
            continue;
        }
        report.tell(database,
                    result.waiting.empty() ? RecoveryOutcome::failed : RecoveryOutcome::waiting,
                    reason_of(result));
    }
}

} // namespace qrtln
