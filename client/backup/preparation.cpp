#include "client/backup/preparation.h"

#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/domino/database_link.h"
#include "client/module/host.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>
#include <utility>

namespace qrtln {

namespace {

constexpr const char* busy_reason = "another backup or a compaction of it is running";

bool copy_fits(const BackupRun& run, const std::string& path) {
    std::size_t relative = path.size() - std::min(path.size(), run.ini.data_directory.size());
    return run.temporary->path().size() + relative < module_path_size;
}

// The second attempt at once ends what a killed run left on the server. What others do there is
// waited for.
Preparation prepare(BackupRun& run, const ManifestItem& item) {
    run.told.server_status.reset();
    Preparation prepared = run.items().prepare(item.path);
    bool told = false;
    while (!prepared.usable && run.told.server_status && is_busy(*run.told.server_status)) {
        if (!std::exchange(told, true) && run.context.busy.left().count() > 0)
            print_message(fmt::format("waiting up to {} s for {}: {}",
                                      run.context.busy.left().count(), for_terminal(item.path),
                                      busy_reason));
        if (!run.context.busy.pause())
            break;
        run.items().forget_reasons();
        run.told.server_status.reset();
        prepared = run.items().prepare(item.path);
    }
    return prepared;
}

// Why the server could not prepare an item, with what to do about it.
std::string unprepared_reason(BackupRun& run, const ManifestItem& item,
                              const std::string& first_problem) {
    std::string last_problem = run.items().reason();
    if (run.told.server_status && is_busy(*run.told.server_status))
        return fmt::format("{}: {} (status {}; --busy-wait is {} s)", busy_reason, last_problem,
                           run.told.server_status->number, run.context.busy.limit().count());
    std::string reason = "the server could not prepare it: " + last_problem;
    if (!first_problem.empty() && first_problem != last_problem)
        reason += fmt::format(" (the first attempt: {})", first_problem);
    if (!is_utf8(item.path))
        reason += " (its name is not UTF-8: run qrtln with the locale of the server)";
    std::optional<std::uint64_t> room = free_bytes(run.temporary->path());
    struct stat status {};
    if (room && item.kind == ItemKind::database && ::stat(item.path.c_str(), &status) == 0 &&
        *room < static_cast<std::uint64_t>(status.st_size))
        reason += fmt::format(" (the temporary directory has only {} free; make room there or "
                              "name another with --tmp-dir)",
                              human_bytes(*room));
    return reason;
}

// What the module told of the copy that it hands out as a good one.
void judge_copy(const BackupRun& run, ManifestItem& item) {
    if (!run.told.incomplete_copy.empty()) {
        item.reason =
            "the changes made during its copy are not complete in it: " + run.told.incomplete_copy;
        return;
    }
    struct stat original {};
    if (run.told.file_short && ::stat(item.path.c_str(), &original) == 0 &&
        static_cast<std::uint64_t>(original.st_size) <= maximal_link_file) {
        item.reason = fmt::format("the server opens a larger database for its {}: it may be a link "
                                  "to that one, of a form that is not known",
                                  human_bytes(static_cast<std::uint64_t>(original.st_size)));
        return;
    }
    if (run.told.file_short)
        item.warnings.emplace_back("its file is shorter than the server says: zeros stand for the "
                                   "rest in the copy; have the server check the database");
    if (item.prepare_status == DB_NUM_W_WARNING)
        item.warnings.emplace_back("not transaction-logged: it can be restored as it was at this "
                                   "backup, but not rolled forward");
    item.dbiid = run.told.dbiid;
}

} // namespace

std::string prepare_item(BackupRun& run, ManifestItem& item) {
    if (item.kind == ItemKind::database) {
        if (!copy_fits(run, item.path)) {
            item.reason = fmt::format("the path of its copy below {} is longer than the module "
                                      "takes; a shorter --tmp-dir helps",
                                      run.temporary->path());
            return {};
        }
        // From here on the server may count it as backed up.
        run.owed_ahead.add(item.path);
        item.restored = run.context.owed.is_restored(run.ini.data_directory, item.path);
    }
    run.told.forget_copy();
    auto [prepared, usable, first] = prepare(run, item);
    item.prepare_status = prepared.status;
    if (interrupt_signal() != 0) {
        item.reason = "interrupted";
        return {};
    }
    if (!usable) {
        item.reason = unprepared_reason(run, item, first);
        return {};
    }
    if (!first.empty())
        item.warnings.push_back("prepared at the second attempt; the first failed: " + first);
    judge_copy(run, item);
    return item.reason.empty() ? prepared.name : std::string();
}

} // namespace qrtln
