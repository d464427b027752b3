// `qrtln recover`: databases from the store, rolled forward with the transaction logs.

#include "client/backup/attachment_objects.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/text.h"
#include "client/commands/server.h"
#include "client/domino/database_names.h"
#include "client/domino/notes_ini.h"
#include "client/domino/point_in_time.h"
#include "client/domino/server_user.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/journal.h"
#include "client/recovery/operation.h"
#include "client/restore/plan.h"
#include "client/sets/server_runtime.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr const char* journal_name = "/recovery.json";

void require_same_server(const RecoveryJournal& journal, const NotesIni& ini) {
    if (journal.data_directory != ini.data_directory)
        throw ClientError(ExitCode::failed,
                          "a recovery of another server, with the data directory " +
                              for_terminal(journal.data_directory) + ", is not finished",
                          "finish it, or give it up, with that server's notes.ini: `qrtln recover` "
                          "or `qrtln recover --abandon`");
}

// The request of this call, or that of the recovery that it goes on with.
RecoveryRequest make_request(const RecoverOptions& options, const NotesIni& ini,
                             const std::optional<RecoveryJournal>& journal) {
    RecoveryRequest request;
    request.selection.names = options.names;
    request.selection.all = options.all;
    request.new_dbiid = options.new_dbiid;
    request.replace_live = options.replace_live;
    request.logs_lost = options.logs_lost;
    request.from_server = options.from_server;
    request.moved = options.moved;
    request.tmp_dir = options.tmp_dir;
    if (!options.to.empty())
        request.to = parse_moment(options.to, "--to").time;
    if (!options.into.empty())
        request.into = absolute_path(options.into);
    bool says_nothing = options.names.empty() && !options.all && options.to.empty() &&
                        options.into.empty() && !options.new_dbiid && !options.replace_live &&
                        !options.logs_lost && options.from_server.empty() && options.moved.empty();
    if (!journal) {
        if (options.names.empty() && !options.all)
            throw ClientError(ExitCode::usage,
                              "recover needs to know what: name databases, or say --all for the "
                              "whole system",
                              "`qrtln show` lists what a set holds; --dry-run shows what would "
                              "happen");
        return request;
    }
    require_same_server(*journal, ini);
    bool same = request.selection.names == journal->names &&
                request.selection.all == journal->all && request.to == journal->to &&
                request.into == journal->into && request.new_dbiid == journal->new_dbiid &&
                request.replace_live == journal->replace_live &&
                request.logs_lost == journal->logs_lost &&
                request.from_server == journal->from_server && request.moved == journal->moved;
    if (!says_nothing && !same)
        throw ClientError(ExitCode::failed, "another recovery is not finished",
                          "`qrtln recover` without databases goes on with it, `qrtln recover "
                          "--abandon` gives it up and removes its restored copies" +
                              std::string(options.state.empty() ? "" : "; with this --state"));
    request.selection.names = journal->names;
    request.selection.all = journal->all;
    request.to = journal->to;
    request.into = journal->into;
    request.new_dbiid = journal->new_dbiid;
    request.replace_live = journal->replace_live;
    request.logs_lost = journal->logs_lost;
    request.from_server = journal->from_server;
    request.moved = journal->moved;
    return request;
}

void check_time(const RecoveryRequest& request) {
    (void)rollforward_value(request.to);
    if (request.to && *request.to > std::time(nullptr))
        throw ClientError(ExitCode::usage,
                          "--to " + utc_time(*request.to) + ": the time is still to come",
                          "without --to databases are recovered to the last committed change");
}

int code_of(const RecoveryResult& result) {
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

int code_of(const RecoveryPlan& plan) {
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

std::string result_text(const RecoveryResult& result, const std::optional<std::int64_t>& to) {
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
        text += "what waits is in " + for_terminal(result.pending_folder) +
                ": when what kept it back is mended (a database in use:\nshut down its task, or "
                "the server), `qrtln recover` goes on with it\n";
    for (const FailedRestore& replaced : result.replaced)
        text +=
            "damaged: " + for_terminal(replaced.path) + ": " + for_terminal(replaced.reason) + "\n";
    for (const FailedRestore& damaged : result.damaged)
        text += "damaged, not recovered: " + for_terminal(damaged.path) + ": " +
                for_terminal(damaged.reason) + "\n";
    for (const FailedRestore& failed : result.failed)
        text += "failed: " + for_terminal(failed.path) + ": " + for_terminal(failed.reason) + "\n";
    return text;
}

nlohmann::json result_json(const RecoveryResult& result, const std::optional<std::int64_t>& to) {
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

[[noreturn]] void refuse_state() {
    throw ClientError(ExitCode::usage,
                      "--state is for a recovery with --into: what is put in the place of a live "
                      "database must be written down in the store, for the next backup",
                      "recover with --into, or from a store that can be written");
}

int abandon(const RecoverOptions& options, const NotesIni& ini, const RecoveryJournalFile& file,
            const std::optional<RecoveryJournal>& journal) {
    std::vector<std::string> leftovers; // that would be removed
    if (journal)
        require_same_server(*journal, ini);
    if (journal && options.dry_run) {
        leftovers = leftovers_of(*journal);
    } else if (journal) {
        print_warnings(abandon_recovery(*journal));
        file.remove();
    }
    if (options.json) {
        nlohmann::json document = {{"command", "recover"},
                                   {"dry_run", options.dry_run},
                                   {"abandoned", journal.has_value() && !options.dry_run},
                                   {"exit_code", 0}};
        if (options.dry_run)
            document["would_remove"] = printable_list(leftovers);
        print_json(document);
        return static_cast<int>(ExitCode::complete);
    }
    std::string text = !journal          ? "no recovery is under way\n"
                       : options.dry_run ? "the recovery would be given up\n"
                                         : "the recovery was given up; databases that it took "
                                           "offline, and did not put in place, may still be\n";
    for (const std::string& path : leftovers)
        text += "would be removed: " + for_terminal(path) + "\n";
    print_output(text);
    return static_cast<int>(ExitCode::complete);
}

// The server's library works on the databases right there.
void require_usable_into(const std::string& into, const Store& store,
                         const std::string& data_directory) {
    if (!into.empty() && lies_in(real_path_of_new(into).value_or(into), store.location()))
        throw ClientError(ExitCode::failed,
                          "the folder " + for_terminal(into) + " of --into is inside the store",
                          "name a folder elsewhere");
    std::string refused =
        into.empty() ? "" : refused_to_server_user(into, R_OK | W_OK | X_OK, data_directory);
    if (refused.empty())
        return;
    std::string user = server_user(data_directory)->name;
    throw ClientError(ExitCode::failed,
                      "the folder " + for_terminal(into) + " of --into cannot be used by " + user +
                          ", who owns the data directory and runs the server's library: " +
                          for_terminal(refused) + " is closed to that user",
                      refused == into
                          ? "`chown " + user + " " + for_terminal(into) +
                                "`, or name a folder that is not there yet"
                          : "name a folder that " + user + " can reach, or `chmod o+x " +
                                for_terminal(refused) + "`");
}

int dry_run(const RecoverOptions& options, const OperationContext& context, RecoveryRequest request,
            const std::optional<RecoveryJournal>& journal) {
    request.log_folder_was_lost = journal && journal->log_folder_lost;
    TemporaryDirectory temporary(absolute_path(options.tmp_dir), {}); // the client's alone
    // It has no lock: it looks at a copy, which reading may cut.
    OwedDatabases owed(copy_owed(context.store, temporary.path()));
    LiveDatabases live(context);
    RecoveryPlan plan = make_recovery_plan(context.store, context.ini, request,
                                           {&live, &owed, journal ? &*journal : nullptr});
    print_warnings(plan.warnings);
    int code = code_of(plan);
    if (options.json)
        print_json({{"command", "recover"},
                    {"dry_run", true},
                    {"store", printable_utf8(absolute_path(options.store))},
                    {"plan", plan_json(plan)},
                    {"exit_code", code}});
    else
        print_output(plan_text(plan));
    return code;
}

} // namespace

int run_recover(const RecoverOptions& options) {
    install_interrupt_handlers();
    NotesIni ini = load_server(options, options.all || options.names.empty());
    bool begins = !options.names.empty() || options.all;
    if (!options.state.empty() && begins && options.into.empty())
        refuse_state();
    // What goes on, or is given up, is there.
    bool writes = !options.dry_run && (options.state.empty() || begins || exists(options.state));
    std::unique_ptr<Store> store = open_store_or_state(
        {options.state, options.store, ini.data_directory, writes},
        options.into.empty() ? "`recover --into DIR --state DIR2` needs no right to write to it"
                             : "keep what must be written elsewhere: --state DIR");
    use_runtime_of(*store, ini.server_name);
    RecoveryJournalFile file(store->runtime_directory() + journal_name);
    std::optional<RecoveryJournal> journal = file.read();
    if (options.abandon)
        return abandon(options, ini, file, journal);
    require_usable_tmp_dir(options.tmp_dir, ini.data_directory);
    RecoveryRequest request = make_request(options, ini, journal);
    ServerOptions origin = options;
    origin.from_server = request.from_server;
    origin.moved = request.moved;
    use_server(*store, ini, origin, !request.into.empty());
    check_time(request);
    require_usable_into(request.into, *store, ini.data_directory);
    if (!options.state.empty() && request.into.empty())
        refuse_state();
    FileDescriptor trace = open_trace_file(options.trace_file);
    OperationContext context = operation_context(ini, *store, options, trace.get());
    if (options.dry_run)
        return dry_run(options, context, request, journal);
    RecoveryResult result = run_recovery(context, request, file, journal);
    print_warnings(result.warnings);
    int code = code_of(result);
    std::set<std::string> sets;
    for (const DatabaseRecovery& database : result.databases)
        if (!request.selection.all && !database.set.empty())
            sets.insert(database.set);
    const NeededObjects objects = needed_objects(*store, ini.sets, sets);
    if (options.json)
        print_json({{"command", "recover"},
                    {"dry_run", false},
                    {"store", printable_utf8(absolute_path(options.store))},
                    {"to", request.to ? nlohmann::json(utc_time(*request.to)) : nlohmann::json()},
                    {"result", result_json(result, request.to)},
                    {"attachment_objects", needed_objects_json(objects)},
                    {"exit_code", code}});
    else
        print_output(result_text(result, request.to) + needed_objects_text(objects));
    return code;
}

} // namespace qrtln
