// `qrtln restore`: a plan first, then the operation that follows it.

#include "client/backup/attachment_objects.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/commands/server.h"
#include "client/domino/notes_ini.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/plan.h"
#include "client/restore/operation.h"
#include "client/restore/plan.h"
#include "client/sets/manifest.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <set>

namespace qrtln {

namespace {

bool is_stuck(const WaitingCopy& waiting) {
    return !waiting.reason.empty();
}

int code_of(const RestoreResult& result) {
    if (!result.damaged.empty())
        return static_cast<int>(ExitCode::damage_found);
    bool stuck = std::any_of(result.waiting.begin(), result.waiting.end(), is_stuck);
    return static_cast<int>(stuck || !result.failed.empty() ? ExitCode::items_failed
                                                            : ExitCode::complete);
}

// What a dry run can tell about how the real one would end.
int code_of(const RestorePlan& plan) {
    for (const RoomNeeded& room : plan.room)
        if (room.available < room.needed)
            return static_cast<int>(ExitCode::failed);
    bool refused = std::any_of(plan.items.begin(), plan.items.end(), [](const PlannedItem& item) {
        return item.action == RestoreAction::refuse;
    });
    return static_cast<int>(refused ? ExitCode::items_failed : ExitCode::complete);
}

std::string result_text(const RestoreResult& result) {
    std::string text = "restored " + std::to_string(result.restored.size()) + " items, " +
                       std::to_string(result.waiting.size()) + " databases wait, " +
                       human_bytes(result.bytes) + " written\n";
    for (const WaitingCopy& waiting : result.waiting)
        text +=
            "  " + for_terminal(waiting.path) + " waits as " + for_terminal(waiting.copy) + "\n";
    for (const KeptReplaced& replaced : result.kept_replaced)
        text += "  " + for_terminal(replaced.path) + " as it was is kept as " +
                for_terminal(replaced.kept) + ": remove it when it is of no more use\n";
    bool stuck = std::any_of(result.waiting.begin(), result.waiting.end(), is_stuck);
    bool half =
        std::any_of(result.waiting.begin(), result.waiting.end(), [](const WaitingCopy& waiting) {
            return is_stuck(waiting) && !waiting.untouched;
        });
    bool in_use = std::any_of(result.waiting.begin(), result.waiting.end(),
                              [](const WaitingCopy& waiting) { return waiting.in_use; });
    const std::string again = result.noted ? "run the\nsame command again: it uses what waits, and "
                                             "removes it\n"
                                           : "run the\nsame command again; afterwards remove " +
                                                 for_terminal(result.kept_folder) + "\n";
    if (half)
        text += "until they are in place, the copies above may be the only whole ones: mend what "
                "is told (a full disk: make room), then " +
                again;
    else if (stuck)
        text += std::string("what waits was not put in place: ") +
                (in_use ? "shut down the task that uses it, or the server, then"
                        : "when what is told above is mended,") +
                " " + again;
    else if (!result.waiting.empty())
        text += "nothing of the server was changed: the same command with --activate puts these "
                "databases in\nplace; when " +
                for_terminal(result.kept_folder) + " is of no more use, remove it\n";
    if (!result.damaged.empty())
        text += std::to_string(result.damaged.size()) +
                " damaged in the store and not restored: `qrtln verify` tells more, an older set "
                "(--at) may have a\nwhole copy\n";
    if (!result.failed.empty())
        text += std::to_string(result.failed.size()) + " failed, see above\n";
    return text;
}

// From where the databases came that are in their places now.
std::string taken_text(const RestorePlan& plan, const RestoreResult& result) {
    std::set<std::string> restored(result.restored.begin(), result.restored.end());
    std::set<std::string> sets;
    if (plan.to.empty())
        for (const PlannedItem& planned : plan.items)
            if (planned.item.kind == ItemKind::database && restored.contains(planned.target))
                sets.insert(planned.set);
    if (sets.empty())
        return {};
    std::string names;
    for (const std::string& set : sets)
        names += (names.empty() ? "" : ", ") + for_terminal(set);
    return "the databases in place are as in " + names +
           ": what was changed since then is not in them,\n"
           "`qrtln recover` instead of restore rolls them forward with the transaction logs\n";
}

nlohmann::json result_json(const RestoreResult& result) {
    nlohmann::json waiting = nlohmann::json::array();
    for (const WaitingCopy& copy : result.waiting)
        waiting.push_back({{"path", printable_utf8(copy.path)},
                           {"copy", printable_utf8(copy.copy)},
                           {"reason", printable_utf8(copy.reason)},
                           {"untouched", copy.untouched},
                           {"in_use", copy.in_use}});
    nlohmann::json kept = nlohmann::json::array();
    for (const KeptReplaced& replaced : result.kept_replaced)
        kept.push_back(
            {{"path", printable_utf8(replaced.path)}, {"kept", printable_utf8(replaced.kept)}});
    return {{"restored", printable_list(result.restored)},
            {"kept_replaced", kept},
            {"failed", failures_json(result.failed)},
            {"damaged", failures_json(result.damaged)},
            {"waiting", waiting},
            {"kept_folder", printable_utf8(result.kept_folder)},
            {"bytes", result.bytes},
            {"warnings", printable_list(result.warnings)}};
}

// Those that the databases of the plan may need; nothing is looked for where all come back.
NeededObjects objects_for(Store& store, const NotesIni& ini, const RestoreRequest& request,
                          const RestorePlan& plan) {
    std::set<std::string> sets;
    for (const PlannedItem& planned : plan.items)
        if (planned.item.kind == ItemKind::database && planned.action != RestoreAction::refuse)
            sets.insert(planned.set);
    return request.selection.all ? NeededObjects{} : needed_objects(store, ini.sets, sets);
}

bool puts_databases_in_place(const RestorePlan& plan) {
    return std::any_of(plan.items.begin(), plan.items.end(), [](const PlannedItem& planned) {
        return planned.item.kind == ItemKind::database &&
               (planned.action == RestoreAction::activate ||
                planned.action == RestoreAction::write);
    });
}

// A list that is damaged is the next backup's to report: it keeps nobody from the databases.
std::optional<OwedDatabases> read_owed(const Store& store, std::string& problem) {
    try {
        return OwedDatabases(owed_file_of(store));
    } catch (const ClientError& failure) {
        problem = failure.what();
    }
    return std::nullopt;
}

} // namespace

int run_restore(const RestoreOptions& options) {
    install_interrupt_handlers();
    if (options.names.empty() && !options.all)
        throw ClientError(ExitCode::usage,
                          "restore needs to know what: name databases, or say "
                          "--all for the whole system",
                          "`qrtln show` lists what a set holds; --dry-run shows what would happen");
    NotesIni ini = load_server(options);
    require_usable_tmp_dir(options.tmp_dir, ini.data_directory);
    bool in_place = !options.dry_run && options.to.empty();
    std::string not_owed;
    std::unique_ptr<Store> store =
        in_place ? open_store_for_notes(options.store, ini.server_name, not_owed)
                 : open_directory_store(options.store, StoreAccess::read);
    use_server(*store, ini, options, !options.to.empty());
    RestoreRequest request;
    request.selection = {options.names, options.all, options.set, options.at};
    request.to = options.to;
    request.plain = options.plain;
    request.activate = options.activate;
    request.keep_replaced = options.keep_replaced;
    request.tmp_dir = options.tmp_dir;
    RestorePlan plan = make_restore_plan(*store, ini, request);
    print_warnings(plan.warnings);

    nlohmann::json document = {{"command", "restore"},
                               {"dry_run", options.dry_run},
                               {"store", printable_utf8(absolute_path(options.store))},
                               {"plan", plan_json(plan)}};
    const NeededObjects objects = objects_for(*store, ini, request, plan);
    document["attachment_objects"] = needed_objects_json(objects);
    if (options.dry_run) {
        int code = code_of(plan);
        std::optional<LaterRecovery> later;
        try {
            later = plan_later_recovery(*store, ini, plan.items);
        } catch (const ClientError& failure) { // a restore does not need the logs
            print_warnings(
                {"which logs a recovery needs is not known: " + std::string(failure.what())});
        }
        document["exit_code"] = code;
        document["recovery_logs"] = later ? later_recovery_json(*later) : nlohmann::json();
        options.json ? print_json(document)
                     : print_output(plan_text(plan) + (later ? later_recovery_text(*later) : "") +
                                    needed_objects_text(objects));
        return code;
    }
    require_room(plan.room);
    FileDescriptor trace = open_trace_file(options.trace_file);
    OperationContext context = operation_context(ini, *store, options, trace.get());
    std::optional<OwedDatabases> owed;
    if (in_place && not_owed.empty())
        owed = read_owed(*store, not_owed);
    if (!not_owed.empty() && puts_databases_in_place(plan))
        print_warnings({not_owed_text(not_owed)});
    RestoreResult result = run_restore_operation(context, plan, owed ? &*owed : nullptr);
    print_warnings(result.warnings);
    for (const PlannedItem& planned : plan.items)
        if (planned.action == RestoreAction::leave_out && options.verbose)
            print_message("left out: " + for_terminal(planned.item.path) + ": " +
                          for_terminal(planned.reason));
    auto left_out =
        std::count_if(plan.items.begin(), plan.items.end(), [](const PlannedItem& planned) {
            return planned.action == RestoreAction::leave_out;
        });
    int code = code_of(result);
    document["exit_code"] = code;
    document["result"] = result_json(result);
    if (options.json)
        print_json(document);
    else
        print_output(result_text(result) + taken_text(plan, result) + needed_objects_text(objects) +
                     (left_out > 0 ? std::to_string(left_out) +
                                         " items left out: --dry-run tells which and why\n"
                                   : ""));
    return code;
}

} // namespace qrtln
