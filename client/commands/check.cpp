#include "client/acceptance/backup_trial.h"
#include "client/acceptance/database_trial.h"
#include "client/acceptance/local_checks.h"
#include "client/acceptance/probe_runner.h"
#include "client/acceptance/teller.h"
#include "client/backup/arguments.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/commands/command.h"
#include "client/commands/server.h"
#include "client/domino/database_names.h"
#include "client/domino/notes_ini.h"
#include "client/domino/server_lock.h"
#include "client/domino/server_user.h"
#include "client/module/environment.h"
#include "client/module/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fmt/format.h>
#include <iostream>
#include <strings.h>
#include <sys/stat.h>
#include <sys/utsname.h>

namespace qrtln {

namespace {

constexpr const char* check_help =
    R"(Look at a server before the first backup, and with --try at its library, in processes of its
own: each step says what it found, and the first surprise ends the report. Nothing of the
server is changed but by --database and --logs. docs/first-contact.md explains each finding.)";

struct CheckOptions : ServerOptions {
    bool try_library = false; // else nothing but what can be seen without the server's library
    bool no_names = false;    // numbers instead of the names of databases
    int step_timeout = 120;   // seconds without an answer
    std::string database;     // one that may be written to; empty: none
    bool logs = false;        // one log is archived for good
    std::string keep_log;     // with logs: the folder where it is kept
    std::string confirmed;    // with logs: the server's name, where nobody can type it
};

using namespace acceptance;

// Databases that every server lives by.
constexpr std::array servers_own = {"names.nsf",    "admin4.nsf",  "log.nsf",     "events4.nsf",
                                    "catalog.nsf",  "certlog.nsf", "ddm.nsf",     "domcfg.nsf",
                                    "busytime.nsf", "daoscat.nsf", "statrep.nsf", "domlog.nsf"};

[[noreturn]] void refuse(const std::string& option, const std::string& reason,
                         const std::string& hint) {
    throw ClientError(ExitCode::failed, fmt::format("{}: {}", option, reason), hint);
}

// The full path of the database that may be written to.
std::string test_database_path(const std::string& given, const NotesIni& ini) {
    const DatabaseArgument argument =
        resolve_database_arguments({given}, ini.data_directory).front();
    const std::string name = name_of(argument.path);
    const std::string shown = fmt::format("--database '{}'", for_terminal(given));
    const char* hint = "make a small database for this with the server, with a few documents";
    struct stat status {};
    if (argument.directory || !is_database_name(name) || ::lstat(argument.path.c_str(), &status) ||
        !S_ISREG(status.st_mode))
        refuse(shown, "that is no database", hint);
    if (std::any_of(servers_own.begin(), servers_own.end(),
                    [&](const char* own) { return ::strcasecmp(own, name.c_str()) == 0; }))
        refuse(shown, "the server lives by this database", hint);
    std::string real = real_path(argument.path).value_or("");
    if (!is_below(real, real_path(ini.data_directory).value_or(ini.data_directory)))
        refuse(shown, "it lies outside the data directory", hint);
    return argument.path;
}

// The process that keeps the log is that of the server's user.
void require_keep_log_of_user(const std::string& folder, const std::string& data_directory) {
    const std::string refused = refused_to_server_user(folder, W_OK | X_OK, data_directory);
    if (refused.empty())
        return;
    const std::string user = server_user(data_directory)->name;
    refuse("--keep-log",
           fmt::format("{} cannot be written by {}, who owns the data directory and runs the "
                       "server's library: {} is closed to that user",
                       for_terminal(folder), user, for_terminal(refused)),
           refused == absolute_path(folder)
               ? fmt::format("`chown {} {}`, or name another folder", user, for_terminal(folder))
               : fmt::format("name a folder that {} can reach, or `chmod o+x {}`", user,
                             for_terminal(refused)));
}

// One log leaves the server for good: whoever asks for that names the server.
void confirm_logs(const CheckOptions& options, const NotesIni& ini) {
    const std::string name = ini.own_name.empty() ? ini.server_name : ini.own_name;
    if (!ini.archives_logs)
        refuse("--logs", "notes.ini has no archive-style transaction logging", "leave --logs out");
    if (exists(fmt::format("{}/{}", ini.data_directory, log_archive_file)))
        refuse("--logs", "a store archives the logs of this server, and would lack one",
               "use a test server");
    struct stat status {};
    if (::stat(options.keep_log.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        refuse("--keep-log", for_terminal(options.keep_log) + " is no folder", "make it first");
    require_keep_log_of_user(options.keep_log, ini.data_directory);
    std::string typed = options.confirmed;
    if (typed.empty() && ::isatty(STDIN_FILENO) == 1) {
        print_message(fmt::format("One transaction log of {} is going to be kept in {} and removed "
                                  "by the server.\nType the server's name:",
                                  for_terminal(name), for_terminal(options.keep_log)));
        std::getline(std::cin, typed);
    }
    if (typed != name)
        refuse("--logs", "the name of this server was not given",
               fmt::format("type it, or say --yes-mark-one-log '{}'", for_terminal(name)));
}

std::string title(const CheckOptions& options) {
    struct utsname system {};
    ::uname(&system);
    return fmt::format(
        "qrtln {} check{}{}{}, {}, {} {} {}", client_version(), options.try_library ? " --try" : "",
        options.database.empty() ? "" : " --database", options.logs ? " --logs" : "",
        utc_time(std::time(nullptr)), system.sysname, system.release, system.machine);
}

class Check {
  public:
    Check(const CheckOptions& options, NotesIni ini)
        : m_options(options), m_report(title(options), !options.json),
          m_limit(options.step_timeout) {
        m_request.ini = std::move(ini);
        m_request.environment = module_environment(m_request.ini).variables;
        m_request.user = server_user(m_request.ini.data_directory);
        m_request.hide_output = options.no_names;
        m_request.log_folder = options.logs ? absolute_path(options.keep_log) : "";
    }
    int run(const std::string& test_database);

  private:
    bool probe(Group group) { return run_probe(m_report, group, m_request, m_limit); }
    void name_databases(const std::vector<std::string>& paths, const std::string& test_database);
    bool look();
    void keep_copies(TemporaryDirectory& folder);
    void save_smallest();
    bool try_database();
    bool try_logs();
    void say_what_was_left_out();
    int exit_code() const;

    const CheckOptions& m_options;
    Report m_report;
    const std::chrono::seconds m_limit;
    ProbeRequest m_request;
};

void Check::name_databases(const std::vector<std::string>& paths,
                           const std::string& test_database) {
    std::size_t number = 0;
    for (const std::string& path : paths) {
        ++number;
        std::string shown = m_options.no_names
                                ? "database " + std::to_string(number)
                                : for_terminal(path_below(path, m_request.ini.data_directory));
        m_request.databases.push_back({path, shown});
        if (path == test_database)
            m_request.test_database = m_request.databases.back();
    }
    if (!test_database.empty() && m_request.test_database.path.empty())
        refuse("--database", for_terminal(test_database) + " is no database that a backup takes",
               "make a small database for this with the server");
}

bool Check::look() {
    return probe(Group::start) && probe(Group::second_start) && probe(Group::names_and_times) &&
           probe(Group::databases) && probe(Group::log_style);
}

// What was deleted and not brought back is in the copy alone.
void Check::keep_copies(TemporaryDirectory& folder) {
    if (!m_report.found(left_finding) || !exists(fmt::format("{}/{}", folder.path(), quiet_copy)))
        return;
    const std::string text = "the copies are kept in " + for_terminal(folder.keep());
    const Finding finding{Step::test_database, "copies", Verdict::told, text, {}, false};
    if (interrupt_signal() != 0)
        m_report.add_at_interruption(finding);
    else
        m_report.add(finding);
}

// Through the commands themselves, each a process of its own.
void Check::save_smallest() {
    const NamedDatabase* smallest = nullptr;
    std::uintmax_t size = UINTMAX_MAX;
    for (const NamedDatabase& database : m_request.databases) {
        std::error_code error;
        const std::uintmax_t its = std::filesystem::file_size(database.path, error);
        if (!error && its < size) {
            smallest = &database;
            size = its;
        }
    }
    if (smallest == nullptr)
        return;
    TemporaryDirectory folder(m_options.tmp_dir, m_request.ini.data_directory);
    BackupTrial trial{m_request.ini.file, folder.path(), {}, smallest->path, smallest->shown};
    if (m_options.as_other_user)
        trial.more.emplace_back("--as-other-user");
    if (const char* module = std::getenv("QRTLN_MODULE"); module != nullptr && *module != '\0')
        trial.more.push_back("--module=" + std::string(module));
    try_backup(m_report, trial);
}

bool Check::try_database() {
    TemporaryDirectory folder(m_options.tmp_dir, m_request.ini.data_directory);
    m_request.folder = folder.path();
    bool done = false;
    try {
        done = probe(Group::quiet_backup) && probe(Group::busy_backup);
        if (done && !m_request.ini.logging)
            m_report.not_tried("a recovery", "there is no transaction logging");
        else
            done = done && probe(Group::recovery);
        done = done && probe(Group::offline);
    } catch (...) {
        keep_copies(folder);
        throw;
    }
    keep_copies(folder);
    return done;
}

bool Check::try_logs() {
    return probe(Group::list_logs) && probe(Group::mark_log);
}

void Check::say_what_was_left_out() {
    if (!m_options.try_library)
        m_report.not_tried("the server's library", "not asked for; say --try");
    else if (m_report.stopped())
        m_report.not_tried("what comes after that", "the report ends at the first surprise");
    if (m_options.database.empty())
        m_report.not_tried("a backup under writes, a recovery, offline and online",
                           "no database was made for it; say --database");
    if (!m_options.logs)
        m_report.not_tried("listing and marking transaction logs",
                           "for test servers alone; say --logs");
}

int Check::exit_code() const {
    if (m_report.stopped())
        return static_cast<int>(m_report.found_by_library() && !m_report.found(own_failure)
                                    ? ExitCode::server_error
                                    : ExitCode::failed);
    return static_cast<int>(m_report.incomplete() ? ExitCode::items_failed : ExitCode::complete);
}

int Check::run(const std::string& test_database) {
    const LocalRequest local = {m_request.ini, module_environment(m_request.ini), m_options.tmp_dir,
                                m_options.store, m_options.no_names};
    name_databases(check_without_library(m_report, local), test_database);
    FileDescriptor lock; // a backup would meet what these two begin on the server
    if (!m_report.stopped() && (m_options.logs || !m_options.database.empty()))
        lock = lock_server(m_request.ini);
    if (m_options.try_library && !m_report.stopped() && look() &&
        (m_options.database.empty() || try_database()) && (!m_options.logs || try_logs())) {
        lock.reset(); // what follows is a run like any other
        save_smallest();
    }
    say_what_was_left_out();
    if (m_options.no_names)
        for (const NamedDatabase& database : m_request.databases)
            if (m_report.mentions(database.shown))
                print_message(fmt::format("{} is {}", database.shown, for_terminal(database.path)));
    const std::string found =
        m_report.stopped()
            ? "stopped: do not back this server up before the finding [stop] is understood"
        : m_report.incomplete() ? "incomplete: a backup would lack what is told above"
                                : "clean: nothing stands against a backup";
    m_report.end(
        exit_code(),
        fmt::format("{}. Please send this report; it has no contents of databases{}.", found,
                    m_options.no_names ? "" : ", and their names are left out with --no-names"));
    return exit_code();
}

int run_check(const CheckOptions& options) {
    install_interrupt_handlers();
    NotesIni ini = CommandServer(options).ini;
    const std::string test_database =
        options.database.empty() ? "" : test_database_path(options.database, ini);
    if (options.logs)
        confirm_logs(options, ini);
    return Check(options, std::move(ini)).run(test_database);
}

void add_trial_options(CLI::App& command, CheckOptions& check, CLI::Option* trying) {
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

void add_check(CLI::App& command, CommandRuns& runs) {
    auto& check = runs.add(command, run_check);
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
    add_lock_wait_option(command);
    command.add_flag("--json", check.json, "One JSON document on standard output");
}

} // namespace

const Command check_command = {"check", check_help, add_check};

} // namespace qrtln
