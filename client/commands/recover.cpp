// `qrtln recover`: databases from the store, rolled forward with the transaction logs.

#include "client/backup/attachment_objects.h"
#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/recover_text.h"
#include "client/commands/server.h"
#include "client/domino/point_in_time.h"
#include "client/domino/server_user.h"
#include "client/module/control_variables.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/journal.h"
#include "client/recovery/leftovers.h"
#include "client/recovery/operation.h"
#include "client/recovery/plan_text.h"
#include "client/restore/plan.h"
#include "client/sets/server_runtime.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr const char* recover_help =
    R"(Recover databases, or the whole system with --all: from their newest set, rolled forward with
the transaction logs to the last committed change, or to a moment. The logs that the server
no longer has come from the store. Databases in use are left alone; a second
`qrtln recover`, without databases, goes on with what a first one left.)";

struct RecoverOptions : ServerOptions {
    std::vector<std::string> names;
    bool all = false;
    std::string to;   // a moment; "" for the end of the logs
    std::string into; // "" for the original place
    bool new_dbiid = false;
    bool replace_live = false; // also databases that hold what no set leads to
    bool logs_lost = false;    // the server's own logs are really lost
    bool dry_run = false;
    bool abandon = false; // give an unfinished recovery up
    std::string state;    // with into: keeps what must be written, "" for the store
};

constexpr const char* journal_name = "/recovery.json";

void require_same_server(const RecoveryJournal& journal, const NotesIni& ini) {
    if (journal.data_directory != ini.data_directory)
        throw ClientError(
            ExitCode::failed,
            fmt::format("a recovery of another server, with the data directory {}, is not finished",
                        for_terminal(journal.data_directory)),
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
                          fmt::format("--to {}: the time is still to come", utc_time(*request.to)),
                          "without --to databases are recovered to the last committed change");
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
        text += fmt::format("would be removed: {}\n", for_terminal(path));
    print_output(text);
    return static_cast<int>(ExitCode::complete);
}

// The server's library works on the databases right there.
void require_usable_into(const std::string& into, const Store& store,
                         const std::string& data_directory) {
    if (!into.empty() && lies_in(real_path_of_new(into).value_or(into), store.location()))
        throw ClientError(
            ExitCode::failed,
            fmt::format("the folder {} of --into is inside the store", for_terminal(into)),
            "name a folder elsewhere");
    std::string refused =
        into.empty() ? "" : refused_to_server_user(into, R_OK | W_OK | X_OK, data_directory);
    if (refused.empty())
        return;
    std::string user = server_user(data_directory)->name;
    throw ClientError(
        ExitCode::failed,
        fmt::format("the folder {} of --into cannot be used by {}, who owns the data directory and "
                    "runs the server's library: {} is closed to that user",
                    for_terminal(into), user, for_terminal(refused)),
        refused == into ? fmt::format("`chown {} {}`, or name a folder that is not there yet", user,
                                      for_terminal(into))
                        : fmt::format("name a folder that {} can reach, or `chmod o+x {}`", user,
                                      for_terminal(refused)));
}

int dry_run(const RecoverOptions& options, const OperationContext& context,
            const RecoveryRequest& request, const std::optional<RecoveryJournal>& journal) {
    TemporaryDirectory temporary(absolute_path(options.tmp_dir), {}); // the client's alone
    // It has no lock: it looks at a copy, which reading may cut.
    OwedDatabases owed(copy_owed(context.store, temporary.path()));
    LiveDatabases live(context);
    RecoveryPlan plan = make_recovery_plan(
        context.store, context.ini, request,
        {&live, &owed, journal ? &*journal : nullptr, journal && journal->log_folder_lost});
    print_warnings(plan.warnings);
    int code = exit_code_of(plan);
    if (options.json)
        print_json({{"command", "recover"},
                    {"dry_run", true},
                    {"store", printable_utf8(store_address(options.store))},
                    {"plan", plan_json(plan)},
                    {"exit_code", code}});
    else
        print_output(plan_text(plan));
    return code;
}

// Those of the sets that the databases came from.
NeededObjects objects_for(const RecoveryResult& result, const RecoveryRequest& request,
                          const CommandServer& server) {
    std::set<std::string> sets;
    for (const DatabaseRecovery& database : result.databases)
        if (!request.selection.all && !database.set.empty())
            sets.insert(database.set);
    return needed_objects(*server.store, server.ini.sets, sets);
}

int report(const RecoverOptions& options, const RecoveryRequest& request,
           const RecoveryResult& result, const NeededObjects& objects) {
    int code = exit_code_of(result);
    if (options.json)
        print_json({{"command", "recover"},
                    {"dry_run", false},
                    {"store", printable_utf8(store_address(options.store))},
                    {"to", request.to ? nlohmann::json(utc_time(*request.to)) : nlohmann::json()},
                    {"result", recovery_json(result, request.to)},
                    {"attachment_objects", needed_objects_json(objects)},
                    {"exit_code", code}});
    else
        print_report(recovery_text(result, request.to) + needed_objects_text(objects), code);
    return code;
}

std::unique_ptr<Store> open_recovery_store(const RecoverOptions& options, const NotesIni& ini) {
    bool begins = !options.names.empty() || options.all;
    if (!options.state.empty() && begins && options.into.empty())
        refuse_state();
    // What goes on, or is given up, is there.
    bool writes = !options.dry_run && (options.state.empty() || begins || exists(options.state));
    return open_store_or_state(
        {options.state, options.store, ini.data_directory, writes},
        options.into.empty() ? "`recover --into DIR --state DIR2` needs no right to write to it"
                             : "keep what must be written elsewhere: --state DIR");
}

// A recovery that goes on takes the sets that it began with.
void use_sets_of(const RecoveryRequest& request, const RecoverOptions& options,
                 CommandServer& server) {
    ServerOptions origin = options;
    origin.from_server = request.from_server;
    origin.moved = request.moved;
    server.use_sets(origin, !request.into.empty());
}

int run_recover(const RecoverOptions& options) {
    install_interrupt_handlers();
    CommandServer server(options, options.all || options.names.empty());
    const NotesIni& ini = server.ini;
    server.store = open_recovery_store(options, ini);
    use_runtime_of(*server.store, ini.server_name);
    RecoveryJournalFile file(server.store->runtime_directory() + journal_name);
    std::optional<RecoveryJournal> journal = file.read();
    if (options.abandon)
        return abandon(options, ini, file, journal);
    require_usable_tmp_dir(options.tmp_dir, ini.data_directory);
    RecoveryRequest request = make_request(options, ini, journal);
    request.kind = request.into.empty() ? RecoveryKind::in_place : RecoveryKind::into_folder;
    use_sets_of(request, options, server);
    check_time(request);
    require_usable_into(request.into, *server.store, ini.data_directory);
    if (!options.state.empty() && request.into.empty())
        refuse_state();
    OperationContext context = server.begin_operations();
    if (options.dry_run)
        return dry_run(options, context, request, journal);
    RecoveryResult result = run_recovery(context, request, file, journal);
    print_warnings(result.warnings);
    return report(options, request, result, objects_for(result, request, server));
}

void add_recover(CLI::App& command, CommandRuns& runs) {
    auto& recover = runs.add(command, run_recover);
    add_server_options(command, recover);
    add_origin_options(command, recover);
    command
        .add_option(
            "--to", recover.to,
            std::string("Up to this time, changes committed at it included (default: to the "
                        "last one): ") +
                time_help)
        ->type_name("TIME");
    command
        .add_option("--into", recover.into,
                    "Write to this folder, each database below it with its whole path, and leave "
                    "the live databases alone")
        ->type_name("DIR");
    command.add_flag("--new-dbiid", recover.new_dbiid,
                     "Give the databases new instance identities: as new ones for the log and the "
                     "next backup");
    command.add_flag("--replace-live", recover.replace_live,
                     "Also databases that hold what no set leads to: another instance than their "
                     "newest copy, or restored and not saved since");
    command.add_flag("--logs-lost", recover.logs_lost,
                     "The server's own transaction logs are really lost, not only not mounted: "
                     "live databases go back to the end of the stored ones");
    command.add_flag("--dry-run", recover.dry_run,
                     "Show what would be recovered from what, and write nothing");
    CLI::Option* names = command.add_option(
        "DATABASE", recover.names,
        "A database or a folder of databases; relative names are below the data directory");
    CLI::Option* all =
        command.add_flag("--all", recover.all,
                         "The whole system, and the files beside its databases that are missing");
    all->excludes(names);
    command
        .add_flag("--abandon", recover.abandon,
                  "Give up a recovery that is not finished: remove its restored copies")
        ->excludes(names)
        ->excludes(all);
    add_state_option(command, recover.state, recover.store,
                     "With --into: the store is only read, and what must be written (lock, "
                     "journal) kept in this folder");
    add_tmp_dir(command, recover.tmp_dir,
                "Where restored copies wait until they are in place; not in the data directory");
    add_module_options(command, recover);
}

} // namespace

const Command recover_command = {"recover", recover_help, add_recover};

} // namespace qrtln
