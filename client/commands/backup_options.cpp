#include "client/commands/backup_options.h"

namespace qrtln {

namespace {

void add_level(CLI::App& command, BackupOptions& backup) {
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
    command
        .add_option_function<std::string>(
            "--forget",
            [&backup](const std::string& options) { backup.forget = parse_policy(options); },
            "After a complete set forget older ones of this server, as `qrtln forget` does with "
            "these options: --forget \"--keep-daily 14 --keep-weekly 8\"")
        ->type_name("OPTIONS");
    command.add_flag("--reread", backup.reread,
                     "Read the files that are no databases also where size, times and inode are "
                     "those of the newest set, whose content is taken otherwise");
    add_compression_option(command, backup.compression);
    add_block_size_option(command, backup.block_size);
    command.add_flag("--take-over", backup.take_over,
                     "This store archives the server's transaction logs from now on, no other");
}

// What a server does not give at once.
void add_server_limits(CLI::App& command, BackupOptions& backup) {
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

void add_removed(CLI::App& command, BackupOptions& backup) {
    CLI::Option& removed =
        *command.add_option("--removed", backup.removed,
                            "This folder was removed on purpose: that its databases are gone is no "
                            "failure (repeatable)");
    may_be_repeated(removed);
    removed.type_name("FOLDER");
}

// Rules for other files keep their order, whichever of both options they come with.
CLI::Option* add_rule(CLI::App& command, BackupOptions& backup, const char* name, bool include,
                      const char* help) {
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
}

// What of the whole system is saved. Returns the options that a named database excludes.
std::vector<CLI::Option*> add_selection(CLI::App& command, BackupOptions& backup) {
    return {command.add_flag(
                "--databases-only", backup.databases_only,
                "Of the whole system: only databases and the files of a server that the module "
                "knows"),
            add_rule(command, backup, "--exclude", false,
                     "Of the whole system: leave out what matches, of the files that the module "
                     "does not know, and be content without a database that cannot be saved; a "
                     "path below the data directory with * and ?, or a name (repeatable)"),
            add_rule(command, backup, "--include", true,
                     "Save what matches all the same; the last --exclude or --include decides "
                     "(repeatable)")};
}

} // namespace

void add_backup_options(CLI::App& command, BackupOptions& options) {
    add_server_options(command, options);
    add_level(command, options);
    add_server_limits(command, options);
    add_removed(command, options);
    std::vector<CLI::Option*> of_whole_system = add_selection(command, options);
    add_tmp_dir(command, options.tmp_dir,
                "Where databases are copied to, one at a time: needs room for the largest");
    add_module_options(command, options);
    CLI::Option* databases =
        command.add_option("DATABASE", options.databases,
                           "A database or a folder of databases, below the data directory");
    for (CLI::Option* option : of_whole_system)
        databases->excludes(option);
}

} // namespace qrtln
