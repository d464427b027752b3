// qrtln: backs up a Domino server through its database module into a store, and restores it.

#include "client/acceptance/probe_process.h"
#include "client/base/error.h"
#include "client/base/nearest_word.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/commands/commands.h"
#include "client/module/process.h"
#include "client/store/store.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr const char* exit_codes = R"(Exit codes:
  0  complete                    10  no store at the given folder
  1  failed                      11  another process uses the store
  2  wrong usage                 12  this user may not use a file of the store, or run the server's library
  3  some items failed           14  the module or the server's library failed
  4  damage found                16  transaction logs are missing: after a backup, which is stored
                                     all the same, take a full one; recover: to an earlier time
                           129, 130, 143  interrupted (SIGHUP, SIGINT, SIGTERM)
)";

constexpr const char* backup_help =
    "Back up a server into the store.\n"
    "Without DATABASE the whole system is saved: every database and template below the data\n"
    "directory, notes.ini, the ID and configuration files, every other file and link there but "
    "for\n"
    "what the server makes anew, and with archive-style logging (levels full and incr) the\n"
    "transaction logs. The server keeps running. The set counts, and the server lets go of its\n"
    "archived logs, only when every item is stored and flushed to disk.";

constexpr const char* restore_help =
    "Restore databases, or the whole system with --all, from the store.\n"
    "Each content is checked before anything of the server is touched. Without --activate and\n"
    "--to the databases are placed in a folder below --tmp-dir and wait there; with --activate\n"
    "the server puts each in the place of the live one, unless that is in use.";

constexpr const char* documents_help =
    "Bring deleted or changed documents back into a live database, from the newest set that has\n"
    "the database. The set's copy is checked before the server hears of it; what came back is "
    "told\n"
    "document by document.";

constexpr const char* recover_help =
    "Recover databases, or the whole system with --all: from their newest set, rolled forward "
    "with\n"
    "the transaction logs to the last committed change, or to a moment. The logs that the server\n"
    "no longer has come from the store. Databases in use are left alone; a second\n"
    "`qrtln recover`, without databases, goes on with what a first one left.";

constexpr const char* prove_help =
    "Prove that the server, or a set, can be recovered: databases are restored and rolled forward "
    "into a\n"
    "scratch folder, and the server's library reads each of them. The proof is recorded, and\n"
    "`qrtln list` shows its date. No live database is touched.";

constexpr const char* check_help =
    "Look at a server before the first backup, and with --try at its library, in processes of its\n"
    "own: each step says what it found, and the first surprise ends the report. Nothing of the\n"
    "server is changed but by --database and --logs. docs/first-contact.md explains each finding.";

constexpr const char* extract_help =
    "Write databases, files and folders of a set to a folder, or the whole set with --all. Needs\n"
    "nothing but the store: no server, no notes.ini.";

constexpr const char* dump_help =
    "Write one database or file of a set to standard output. Only exit code 0 says that what was\n"
    "written is whole. Needs nothing but the store.";
constexpr const char* time_help =
    "2026-11-21T02:49:23Z, with another zone, or without one local; or a set's YYYYMMDDThhmmssZ";

// The parser takes "[a,b]" for a list of two values. As a name it is left alone when it is written
// "./[a,b]", which is the same path.
std::vector<std::string> without_lists(int argc, char** argv) {
    std::vector<std::string> arguments(argv, argv + argc);
    for (std::size_t i = 2; i < arguments.size(); ++i)
        if (arguments[i].starts_with('[') && arguments[i].ends_with(']'))
            arguments[i].insert(0, "./");
    return arguments;
}

void add_store_option(CLI::App& command, std::string& store) {
    command.add_option("--store", store, "The folder of the store")
        ->envname("QRTLN_STORE")
        ->type_name("DIR")
        ->required();
}

void add_store_options(CLI::App& command, std::string& store, bool& json) {
    add_store_option(command, store);
    command.add_flag("--json", json, "One JSON document on standard output");
}

void add_tmp_dir(CLI::App& command, std::string& tmp_dir, const std::string& help) {
    const char* set = std::getenv("TMPDIR");
    tmp_dir = set != nullptr && *set != '\0' ? set : "/var/tmp";
    command.add_option("--tmp-dir", tmp_dir, help)->type_name("DIR")->capture_default_str();
}

void report_failure(bool json, int code, const std::string& message, const std::string& hint) {
    qrtln::print_error(message, hint);
    if (!json)
        return;
    nlohmann::json document = {
        {"exit_code", code}, {"status", "failed"}, {"error", qrtln::printable_utf8(message)}};
    if (!hint.empty())
        document["hint"] = qrtln::printable_utf8(hint);
    try {
        qrtln::print_json(document);
    } catch (const qrtln::ClientError& failure) {
        qrtln::print_error(failure.what(), "");
    }
}

// What both commands that run the module take.
template <typename Options>
void add_server_options(CLI::App& command, Options& options) {
    command.add_option("--notes-ini", options.notes_ini, "The server's notes.ini")
        ->type_name("FILE")
        ->required();
    command
        .add_option("--server", options.server,
                    "The name of the server in the store (default: the host's)")
        ->envname("QRTLN_SERVER")
        ->type_name("NAME");
    add_store_options(command, options.store, options.json);
}

// What those take that read another server's sets.
template <typename Options>
void add_origin_options(CLI::App& command, Options& options) {
    command
        .add_option("--from-server", options.from_server,
                    "Take the sets of this server (default: only its own)")
        ->type_name("NAME");
    command
        .add_option("--data-directory", options.moved,
                    "The sets are of the data directory OLD, which is NEW now")
        ->type_name("OLD=NEW");
}

void add_as_other_user(CLI::App& command, bool& as_other_user) {
    command.add_flag("--as-other-user", as_other_user,
                     "Run the server's library as this user, who is neither root nor the owner of "
                     "the data directory");
}

template <typename Options>
void add_module_options(CLI::App& command, Options& options) {
    command
        .add_option("--module", options.module,
                    "The database module, libqrtln.so (default: beside this program)")
        ->envname("QRTLN_MODULE")
        ->type_name("FILE");
    command
        .add_option("--call-timeout", options.call_timeout,
                    "Give up when the server's library has kept silent for so many seconds in one "
                    "call (default: never)")
        ->envname("QRTLN_CALL_TIMEOUT")
        ->check(CLI::Range(1U, 1000000U))
        ->type_name("SECONDS");
    command.add_flag("--verbose", options.verbose, "Show the module's messages");
    command.add_option("--trace", options.trace_file, "Append the module's trace to FILE")
        ->type_name("FILE");
    add_as_other_user(command, options.as_other_user);
}

// What a server does not give at once.
void add_server_limits(CLI::App& command, qrtln::BackupOptions& backup) {
    command.add_flag(
        "--log-session", backup.log_session,
        "With --level full, where the server lists its transaction logs only within an "
        "archiving session: begin one for them, which keeps other archivers out");
    command
        .add_option("--busy-wait", backup.busy_wait,
                    "Seconds to wait, in all, for databases that another program backs up or "
                    "compacts")
        ->type_name("SECONDS")
        ->check(CLI::Range(0U, 86400U))
        ->capture_default_str();
}

CLI::App* add_backup(CLI::App& app, qrtln::BackupOptions& backup) {
    CLI::App& command = *app.add_subcommand("backup", backup_help);
    add_server_options(command, backup);
    command
        .add_option(
            "--level", backup.level,
            "full: with the transaction logs, the base of later backups; incr: the logs since "
            "the last backup, and the databases that they cannot bring up to date; diff: "
            "what changed since the last full; copy: as full, without the logs and "
            "without a trace on the server")
        ->check(CLI::IsMember({"full", "copy", "diff", "incr"}))
        ->capture_default_str();
    command.add_flag("--auto-full", backup.auto_full,
                     "Take a full backup where diff or incr has none to build on");
    command.add_flag("--take-over", backup.take_over,
                     "This store archives the server's transaction logs from now on, no other");
    add_server_limits(command, backup);
    command
        .add_option("--removed", backup.removed,
                    "This folder was removed on purpose: that its databases are gone is no "
                    "failure (repeatable)")
        ->type_name("FOLDER")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    CLI::Option* databases_only = command.add_flag(
        "--databases-only", backup.databases_only,
        "Of the whole system: only databases and the files of a server that the module knows");
    auto add_rule = [&](const char* name, bool include, const char* help) {
        return command
            .add_option_function<std::string>(
                name,
                [&backup, include](const std::string& pattern) {
                    backup.rules.push_back({pattern, include});
                },
                help)
            ->type_name("PATTERN")
            ->trigger_on_parse()
            ->allow_extra_args(false);
    };
    CLI::Option* exclude = add_rule(
        "--exclude", false,
        "Of the whole system: leave out what matches, of the files that the module does "
        "not know, and be content without a database that cannot be saved; a path below the "
        "data directory with * and ?, or a name (repeatable)");
    CLI::Option* include =
        add_rule("--include", true,
                 "Save what matches all the same; the last --exclude or --include decides "
                 "(repeatable)");
    add_tmp_dir(command, backup.tmp_dir,
                "Where databases are copied to, one at a time: needs room for the largest");
    add_module_options(command, backup);
    command
        .add_option("DATABASE", backup.databases,
                    "A database or a folder of databases, below the data directory")
        ->excludes(databases_only)
        ->excludes(exclude)
        ->excludes(include);
    command.footer(exit_codes);
    return &command;
}

CLI::App* add_restore(CLI::App& app, qrtln::RestoreOptions& restore) {
    CLI::App& command = *app.add_subcommand("restore", restore_help);
    add_server_options(command, restore);
    add_origin_options(command, restore);
    CLI::Option* restore_set =
        command.add_option("--set", restore.set,
                           "Just what this set holds: its name, the beginning of it, \"latest\"");
    command
        .add_option("--at", restore.at,
                    std::string("The newest up to this time (default: the newest): ") + time_help)
        ->type_name("TIME")
        ->excludes(restore_set);
    CLI::Option* restore_to =
        command
            .add_option("--to", restore.to,
                        "Write to this folder, each item below it with its whole path")
            ->type_name("DIR");
    command.add_flag("--plain", restore.plain, "Write straight into the folder, without the path")
        ->needs(restore_to);
    CLI::Option* activate =
        command
            .add_flag("--activate", restore.activate,
                      "Have the server put each database in the place of the live one")
            ->excludes(restore_to);
    command
        .add_flag("--keep-replaced", restore.keep_replaced,
                  "Keep each database and file that is replaced as NAME.replaced-TIME beside it")
        ->needs(activate);
    command.add_flag("--dry-run", restore.dry_run,
                     "Show what would be written where, and write nothing");
    CLI::Option* restore_names = command.add_option(
        "DATABASE", restore.names,
        "A database, a file or a folder of databases; relative names are below the data directory");
    command.add_flag("--all", restore.all, "The whole system")->excludes(restore_names);
    add_tmp_dir(command, restore.tmp_dir,
                "Where databases are placed first; not in the data directory");
    add_module_options(command, restore);
    command.footer(exit_codes);
    return &command;
}

void add_documents_options(CLI::App& command, qrtln::DocumentsOptions& documents) {
    add_server_options(command, documents);
    add_origin_options(command, documents);
    command
        .add_option("--since", documents.since,
                    std::string("Deleted or changed then or later, to the minute: ") + time_help)
        ->type_name("TIME")
        ->required();
    CLI::Option* set = command.add_option(
        "--set", documents.set, "From this set: its name, the beginning of it, \"latest\"");
    command.add_option("--at", documents.at, "From the newest set up to this time, as in --since")
        ->type_name("TIME")
        ->excludes(set);
    command.add_flag("--dry-run", documents.dry_run,
                     "List the documents that would come back, with the times of their change, and "
                     "leave the database as it is; takes a copy of it, as a backup does");
    add_tmp_dir(command, documents.tmp_dir,
                "Where the set's copy is placed; not in the data directory");
    command
        .add_option("DATABASE", documents.database,
                    "The database; a relative name is below the data directory")
        ->required();
    add_module_options(command, documents);
    command.footer(exit_codes);
}

CLI::App* add_documents(CLI::App& app, qrtln::DocumentsOptions& deleted,
                        qrtln::DocumentsOptions& changed) {
    changed.changed = true;
    CLI::App& command = *app.add_subcommand("documents", documents_help);
    command.require_subcommand(1);
    add_documents_options(
        *command.add_subcommand("deleted",
                                "Bring back what was deleted since TIME, and mark it unread for "
                                "the server's user."),
        deleted);
    CLI::App& changed_command = *command.add_subcommand(
        "changed", "Replace the listed documents that changed since TIME by the set's versions.");
    changed_command
        .add_option("--ids", changed.ids_file,
                    "The note ids, one a line, decimal or as 0x8F6 or NT000008F6; - reads standard "
                    "input")
        ->type_name("FILE")
        ->required();
    add_documents_options(changed_command, changed);
    return &command;
}

CLI::App* add_recover(CLI::App& app, qrtln::RecoverOptions& recover) {
    CLI::App& command = *app.add_subcommand("recover", recover_help);
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
    command
        .add_option("--state", recover.state,
                    "With --into: the store is only read, and what must be written (lock, journal) "
                    "kept in this folder")
        ->type_name("DIR");
    add_tmp_dir(command, recover.tmp_dir,
                "Where restored copies wait until they are in place; not in the data directory");
    add_module_options(command, recover);
    command.footer(exit_codes);
    return &command;
}

CLI::App* add_prove(CLI::App& app, qrtln::ProveOptions& prove) {
    CLI::App& command = *app.add_subcommand("prove", prove_help);
    add_server_options(command, prove);
    add_origin_options(command, prove);
    command.add_option("SET", prove.set,
                       "The set's name, the beginning of it, or \"latest\" (default: the whole "
                       "server, as it could be recovered now from all sets)");
    command
        .add_option("--state", prove.state,
                    "The store is only read, and what must be written (lock, journal, the proof) "
                    "kept in this folder")
        ->type_name("DIR");
    add_tmp_dir(command, prove.tmp_dir,
                "Where the scratch folder is made: needs room for all its databases");
    add_module_options(command, prove);
    command.footer(exit_codes);
    return &command;
}

void add_trial_options(CLI::App& command, qrtln::CheckOptions& check, CLI::Option* trying) {
    command
        .add_option("--database", check.database,
                    "A small database that was made for this: it is backed up while documents in "
                    "it are deleted and brought back, rolled forward, taken offline and online")
        ->type_name("FILE")
        ->needs(trying);
    CLI::Option* logs =
        command
            .add_flag("--logs", check.logs,
                      "For test servers alone: archive one transaction log, after the server's "
                      "name was typed")
            ->needs(trying);
    CLI::Option* keep = command
                            .add_option("--keep-log", check.keep_log,
                                        "With --logs: the folder where that log is kept")
                            ->type_name("DIR")
                            ->needs(logs);
    logs->needs(keep);
    command
        .add_option("--yes-mark-one-log", check.confirmed,
                    "With --logs: the server's name, where nobody is there to type it")
        ->type_name("NAME")
        ->needs(logs);
}

CLI::App* add_check(CLI::App& app, qrtln::CheckOptions& check) {
    CLI::App& command = *app.add_subcommand("check", check_help);
    command.add_option("--notes-ini", check.notes_ini, "The server's notes.ini")
        ->type_name("FILE")
        ->required();
    command.add_option("--store", check.store, "The folder of the store, if there is one")
        ->envname("QRTLN_STORE")
        ->type_name("DIR");
    CLI::Option* trying =
        command.add_flag("--try", check.try_library,
                         "Load the server's library, open every database, and look at the log");
    add_trial_options(command, check, trying);
    command
        .add_option("--step-timeout", check.step_timeout,
                    "Seconds without an answer, after which a step is ended")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    command.add_flag("--no-names", check.no_names,
                     "Numbers instead of the names of databases, in the order of their paths");
    add_tmp_dir(command, check.tmp_dir, "Where backups are going to copy databases to");
    add_as_other_user(command, check.as_other_user);
    command.add_flag("--json", check.json, "One JSON document on standard output");
    command.footer(exit_codes);
    return &command;
}

CLI::App* add_extract(CLI::App& app, qrtln::ExtractOptions& extract) {
    CLI::App& command = *app.add_subcommand("extract", extract_help);
    add_store_options(command, extract.store, extract.json);
    command.add_option("SET", extract.set, "The set's name, the beginning of it, or \"latest\"")
        ->required();
    CLI::Option* paths = command.add_option(
        "PATH", extract.paths,
        "A database, a file or a folder of the set; relative names are below the data directory "
        "that it recorded");
    command.add_flag("--all", extract.all, "Everything that the set holds")->excludes(paths);
    command
        .add_option("--to", extract.to,
                    "Write below this folder, and never over what is there; what is outside the "
                    "data directory comes with its whole path")
        ->type_name("DIR")
        ->required();
    command.footer(exit_codes);
    return &command;
}

CLI::App* add_dump(CLI::App& app, qrtln::DumpOptions& dump) {
    CLI::App& command = *app.add_subcommand("dump", dump_help);
    add_store_option(command, dump.store);
    command.add_option("SET", dump.set, "The set's name, the beginning of it, or \"latest\"")
        ->required();
    command.add_option("PATH", dump.path, "A database or a file of the set")->required();
    command.footer(exit_codes);
    return &command;
}

std::vector<const CLI::App*> commands_of(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* find_command(const CLI::App& app, const std::string& name) {
    for (const CLI::App* command : commands_of(app))
        if (command->get_name() == name)
            return command;
    return nullptr;
}

// A word of the command line that stands for nothing, and what it was probably meant to be, as a
// sentence; empty when there is nothing to say.
std::string probably_meant(const CLI::App& app, const std::vector<std::string>& arguments) {
    const CLI::App* command = &app;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string word = arguments[i].substr(0, arguments[i].find('='));
        if (const CLI::App* found = find_command(*command, word)) {
            command = found;
            continue;
        }
        std::vector<std::string> known;
        for (const CLI::App* other : commands_of(*command))
            known.push_back(other->get_name());
        if (word.starts_with("--")) {
            if (command->get_option_no_throw(word) != nullptr)
                continue;
            known.clear();
            for (const CLI::Option* option : command->get_options())
                for (const std::string& name : option->get_lnames())
                    known.push_back("--" + name);
        }
        if (std::string near = qrtln::nearest_word(word, known); !near.empty())
            return "there is no '" + qrtln::for_terminal(word) + "', did you mean '" + near + "'?";
        if (command == &app && !word.starts_with("-"))
            return "there is no command '" + qrtln::for_terminal(word) + "'";
    }
    return {};
}

// `qrtln help` and `qrtln help COMMAND`.
bool print_help(const CLI::App& app, const std::vector<std::string>& arguments) {
    if (arguments.size() < 2 || arguments.size() > 3 || arguments[1] != "help")
        return false;
    const CLI::App* command = arguments.size() == 2 ? &app : find_command(app, arguments[2]);
    if (command == nullptr)
        return false;
    std::fputs(command->help().c_str(), stdout);
    return true;
}

// The commands with their options, and which of them was typed.
class Commands {
  public:
    explicit Commands(CLI::App& app);
    // REQUIRES: the command line was parsed.
    int run() const { return typed().run(); }
    // Whether it was asked for JSON, as far as the command has that.
    bool json() const { return typed().json != nullptr && *typed().json; }

  private:
    struct Command {
        const CLI::App* app;
        std::function<int()> run;
        const bool* json;
    };
    const Command& typed() const {
        return *std::find_if(m_commands.begin(), m_commands.end(),
                             [](const Command& command) { return command.app->parsed(); });
    }
    void add_store_commands(CLI::App& app);
    template <typename Options>
    void add(CLI::App* command, int (*function)(const Options&), const Options& options) {
        m_commands.push_back(
            {command, [function, &options] { return function(options); }, &options.json});
    }

    std::vector<Command> m_commands;
    qrtln::BackupOptions m_backup;
    qrtln::RestoreOptions m_restore;
    qrtln::DocumentsOptions m_deleted;
    qrtln::DocumentsOptions m_changed;
    qrtln::RecoverOptions m_recover;
    qrtln::ProveOptions m_prove;
    qrtln::CheckOptions m_check;
    qrtln::StoreOptions m_list;
    qrtln::StoreOptions m_show;
    qrtln::StoreOptions m_verify;
    qrtln::ForgetOptions m_forget;
    qrtln::ExtractOptions m_extract;
    qrtln::DumpOptions m_dump;
};

Commands::Commands(CLI::App& app) {
    add(add_backup(app, m_backup), qrtln::run_backup, m_backup);
    add(add_restore(app, m_restore), qrtln::run_restore, m_restore);
    CLI::App* documents = add_documents(app, m_deleted, m_changed);
    add(documents->get_subcommand("deleted"), qrtln::run_documents, m_deleted);
    add(documents->get_subcommand("changed"), qrtln::run_documents, m_changed);
    add(add_recover(app, m_recover), qrtln::run_recover, m_recover);
    add(add_prove(app, m_prove), qrtln::run_prove, m_prove);
    add(add_check(app, m_check), qrtln::run_check, m_check);
    add_store_commands(app);
    add(add_extract(app, m_extract), qrtln::run_extract, m_extract);
    m_commands.push_back({add_dump(app, m_dump), [this] { return run_dump(m_dump); }, nullptr});
}

void Commands::add_store_commands(CLI::App& app) {
    CLI::App* list = app.add_subcommand("list", "List the sets of the store.");
    add_store_options(*list, m_list.store, m_list.json);
    add(list, qrtln::run_list, m_list);

    CLI::App* show = app.add_subcommand("show", "Show the items of one set.");
    add_store_options(*show, m_show.store, m_show.json);
    show->add_option("SET", m_show.set, "The set's name, the beginning of it, or \"latest\"")
        ->required();
    add(show, qrtln::run_show, m_show);

    CLI::App* verify = app.add_subcommand(
        "verify", "Read everything that the sets refer to and compare it with its checksums.");
    add_store_options(*verify, m_verify.store, m_verify.json);
    verify->add_option("SET", m_verify.set, "Only this set");
    add(verify, qrtln::run_verify, m_verify);

    CLI::App* forget = app.add_subcommand(
        "forget", "Forget sets: remove them, or say of missing ones that they are gone for good.\n"
                  "Their contents stay in the store.");
    add_store_options(*forget, m_forget.store, m_forget.json);
    forget->add_option("SET", m_forget.sets, "The sets' names, or the beginnings of them")
        ->required();
    add(forget, qrtln::run_forget, m_forget);
}

} // namespace

int main(int argc, char** argv) {
    ::umask(077); // the store and the copies hold mail
    if (qrtln::is_module_process(argc, argv))
        return qrtln::run_module_process(argc, argv);
    if (qrtln::acceptance::is_probe_process(argc, argv))
        return qrtln::acceptance::run_probe_process(argc, argv);
    CLI::App app(
        "qrtln backs up and restores a Domino server: databases, templates, configuration and\n"
        "transaction logs, through the server's own backup interface, into a store in a\n"
        "folder. Contents are kept once, compressed, and checked by their SHA-256.",
        "qrtln");
    app.set_version_flag("--version", std::string("qrtln ") + qrtln::client_version());
    app.require_subcommand(1);
    app.footer(exit_codes);
    const Commands commands(app);

    std::vector<std::string> texts = without_lists(argc, argv);
    if (print_help(app, texts))
        return 0;
    try {
        std::vector<const char*> arguments;
        for (const std::string& text : texts)
            arguments.push_back(text.c_str());
        app.parse(static_cast<int>(arguments.size()), arguments.data());
    } catch (const CLI::ParseError& error) {
        // 0 is --help or --version; everything else is wrong usage.
        if (error.get_exit_code() != 0)
            if (std::string meant = probably_meant(app, texts); !meant.empty())
                qrtln::print_error(meant, "");
        return app.exit(error) == 0 ? 0 : static_cast<int>(qrtln::ExitCode::usage);
    }
    try {
        return commands.run();
    } catch (const qrtln::ClientError& failure) {
        std::string vanished = qrtln::vanished_store_hint();
        report_failure(commands.json(), failure.exit_code(), failure.what(),
                       vanished.empty() ? failure.hint() : vanished);
        return failure.exit_code();
    } catch (const std::bad_alloc&) {
        report_failure(commands.json(), 1, "out of memory", "");
    } catch (const std::exception& failure) {
        report_failure(commands.json(), 1, std::string("unexpected failure: ") + failure.what(),
                       "");
    }
    return 1;
}
