// `qrtln backup`: first what earlier runs owe, then what was asked for.

#include "client/backup/arguments.h"
#include "client/backup/operation.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/lock_wait.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/backup_base.h"
#include "client/commands/backup_first.h"
#include "client/commands/backup_folders.h"
#include "client/commands/backup_options.h"
#include "client/commands/backup_text.h"
#include "client/commands/command.h"
#include "client/commands/server.h"
#include "client/domino/server_lock.h"
#include "client/module/temporary_directory.h"
#include "client/sets/unmarked_logs.h"

#include <fmt/format.h>
#include <optional>

namespace qrtln {

namespace {

constexpr const char* backup_help = R"(Back up a server into the store.
Without DATABASE the whole system is saved: every database and template below the data
directory, notes.ini, the ID and configuration files, every other file and link there but for
what the server makes anew, and with archive-style logging (levels full and incr) the
transaction logs. The server keeps running. The set counts, and the server lets go of its
archived logs, only when every item is stored and flushed to disk.)";

class BackupRun {
  public:
    explicit BackupRun(const BackupOptions& options)
        : m_options(options), m_server(options), m_ini(m_server.ini),
          m_busy(std::chrono::seconds(options.busy_wait)) {}
    int run();

  private:
    void check_selection();
    void check_place_of_store() const;
    void open_store();
    void claim_logs();
    void back_up();
    bool takes_all() const { return m_request.level == "full" && m_request.arguments.empty(); }
    int forget();
    int report();
    void report(int code) const;

    const BackupOptions& m_options;
    CommandServer m_server;
    const NotesIni& m_ini;
    BackupRequest m_request;
    FileDescriptor m_server_lock;
    std::optional<RemovedFolders> m_removed;
    std::optional<OwedDatabases> m_owed;
    std::optional<IndexGuard> m_index;
    std::optional<BackupBase> m_base;
    BusyWait m_busy;
    std::optional<BackupContext> m_context;
    std::optional<BackupFirst> m_first;
    Manifest m_manifest; // of the set that was asked for
    std::optional<Forgetting> m_forgotten;
};

// 1. What is to be saved, and where to: nothing is touched. 2. The store, and the locks of both.
// 3. The level, and what it builds on. 4. What comes first. 5. What was asked for. 6. What is told:
// the sets are there, whether or not anybody can be.
int BackupRun::run() {
    check_selection();
    check_place_of_store();
    require_usable_tmp_dir(m_options.tmp_dir, m_ini.data_directory);
    m_server.store = open_directory_store(m_options.store, StoreAccess::write, nullptr,
                                          {.block_size = m_options.block_size});
    m_server.store->compress_at(m_options.compression);
    try {
        open_store();
        if (waited_for_lock()) // users created and deleted databases meanwhile
            check_selection();
        m_base->choose(m_request);
        claim_logs();
        back_up();
    } catch (...) {
        m_server.store->discard_added();
        throw;
    }
    report_gaps(m_manifest);
    if (exit_code_of(m_manifest) == static_cast<int>(ExitCode::items_failed))
        print_error(fmt::format("the set {} is stored, but it is not complete", m_manifest.set),
                    incomplete_hint(m_manifest, m_options.log_session, m_ini.linear_logging));
    return report();
}

void BackupRun::check_selection() {
    m_request.other_files = !m_options.databases_only;
    m_request.log_session = m_options.log_session;
    m_request.rules = m_options.rules;
    m_request.reread = m_options.reread;
    (void)PathRules(m_options.rules, m_ini.data_directory);
    m_request.arguments = resolve_database_arguments(m_options.databases, m_ini.data_directory);
    m_request.scan = scan_selection(m_ini.data_directory, m_request.arguments);
    m_removed.emplace(m_options.removed, m_ini);
    m_request.attachments_may_be_gone = m_removed->attachments();
    if (m_request.arguments.empty() && m_request.scan.databases.empty())
        throw ClientError(ExitCode::server_error,
                          fmt::format("there is no database below the data directory {} of {}",
                                      for_terminal(m_ini.data_directory), for_terminal(m_ini.file)),
                          "is this the notes.ini of the server, and is its disk mounted?");
}

// The server takes what is below its data directory for its own, and the next backup would save it.
void BackupRun::check_place_of_store() const {
    if (is_elsewhere(m_options.store))
        return;
    std::string existing = absolute_path(m_options.store);
    while (!real_path(existing) && existing.size() > 1)
        existing = folder_of(existing);
    std::optional<std::string> store = real_path(existing);
    std::optional<std::string> data = real_path(m_ini.data_directory);
    if (store && data && is_below(*store, *data))
        throw ClientError(ExitCode::failed,
                          fmt::format("the store {} is inside the data directory {}",
                                      for_terminal(m_options.store),
                                      for_terminal(m_ini.data_directory)),
                          "name a folder elsewhere with --store");
}

// What the store knows of this server, which nobody else backs up meanwhile.
void BackupRun::open_store() {
    m_server.use_sets();
    Store& store = *m_server.store;
    m_owed.emplace(owed_file_of(store));
    m_index.emplace(store, m_ini.server_name);
    m_base.emplace(store, m_ini, *m_index, m_options);
    m_server_lock = lock_server(m_ini);
    if (std::string problem = last_close_problem(store, m_ini.sets); !problem.empty())
        print_message("warning: " + problem);
    if (store.block_size() == 0)
        print_message(
            "note: this store is of an earlier release, where a changed database is stored "
            "as a whole: `qrtln convert` makes it store what changed");
}

// Only one store may archive the server's logs.
void BackupRun::claim_logs() {
    if (!m_ini.archives_logs || !(takes_all() || m_request.level == "incr"))
        return;
    if (!m_options.take_over)
        if (std::string other = other_log_archive(m_ini, *m_server.store); !other.empty())
            throw ClientError(ExitCode::failed, other,
                              "back up into that store, or with --level copy; if this store is to "
                              "archive the logs from now on, say --level full --take-over");
    m_request.before_logs_are_archived = [this] {
        if (std::string problem = note_log_archive(m_ini, *m_server.store); !problem.empty())
            print_message("warning: which store archives the transaction logs is not noted: " +
                          problem);
    };
}

void BackupRun::back_up() {
    m_context.emplace(BackupContext{m_server.begin_operations(), *m_owed, *m_index, m_busy});
    m_first.emplace(*m_context, *m_removed);
    if (!takes_all())
        m_first->save(m_request, m_base->since(), [this] { m_base->choose(m_request); });
    // A set of everything does not count as one while a folder is away, on a disk that is not
    // mounted: the databases in it would be missing in all that builds on the set.
    if (m_request.arguments.empty() && m_request.base.empty())
        m_request.missing_folders =
            find_missing_folders(*m_server.store, m_ini, m_request.scan.databases, *m_removed);
    m_manifest = run_backup_operation(*m_context, m_request);
    if (takes_all())
        (void)m_first->owed_and_there();
    m_first->report_unnamed(m_manifest, m_request);
}

// What goes wrong leaves the new set, and those that were to go.
int BackupRun::forget() {
    ForgetRequest request = *m_options.forget;
    request.server = m_ini.server_name;
    try {
        m_forgotten = forget_sets(*m_server.store, request);
        return 0;
    } catch (const ClientError& failure) {
        print_error(fmt::format("the set {} is stored, but older ones were not forgotten: {}",
                                m_manifest.set, failure.what()),
                    failure.hint());
        return failure.exit_code();
    }
}

int BackupRun::report() {
    int code = exit_code_of(m_manifest);
    code = code != 0 ? code : m_first->exit_code();
    if (code == 0 && m_options.forget)
        code = forget();
    try {
        report(code);
    } catch (const ClientError& failure) {
        print_error(failure.what() + std::string("; the backup ended with exit code ") +
                        std::to_string(code),
                    "`qrtln list` shows its sets");
    }
    return code;
}

void BackupRun::report(int code) const {
    const std::optional<Manifest>& first = m_first->set();
    if (!m_options.json) {
        print_report((first ? set_lines(*first) : "") + set_lines(m_manifest) +
                         (m_forgotten ? forgetting_text(*m_forgotten, false) : ""),
                     code);
        return;
    }
    nlohmann::json document = set_summary(m_manifest);
    document.update({{"command", "backup"},
                     {"exit_code", code},
                     {"store", printable_utf8(store_address(m_options.store))}});
    if (first)
        document["owed"] = set_summary(*first);
    if (m_forgotten)
        document["forget"] = forgetting_json(*m_forgotten);
    print_json(document);
}

int run_backup(const BackupOptions& options) {
    install_interrupt_handlers();
    return BackupRun(options).run();
}

void add_backup(CLI::App& command, CommandRuns& runs) {
    add_backup_options(command, runs.add(command, run_backup));
}

} // namespace

const Command backup_command = {"backup", backup_help, add_backup};

} // namespace qrtln
