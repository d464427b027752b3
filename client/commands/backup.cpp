// `qrtln backup`: first what earlier runs owe, then what was asked for.

#include "client/backup_operation.h"
#include "client/catalogue.h"
#include "client/commands/commands.h"
#include "client/error.h"
#include "client/interrupt.h"
#include "client/log_chain.h"
#include "client/output.h"
#include "client/text.h"

#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr const char* reason_owed = "owed";

class BackupRun {
  public:
    explicit BackupRun(const BackupOptions& options) : m_options(options) {}
    int run();

  private:
    void check_selection();
    void choose_level();
    void check_index();
    void choose_base();
    void save_owed(const BackupContext& context);
    std::vector<DatabaseArgument> owed_arguments(const BackupContext& context);
    void strike_gone(const BackupContext& context);
    void report_gaps(const Manifest& manifest) const;
    int exit_code() const;
    int report() const;

    const BackupOptions& m_options;
    NotesIni m_ini;
    BackupRequest m_request;
    FileDescriptor m_trace;
    std::unique_ptr<Store> m_store;
    std::optional<OwedDatabases> m_owed;
    std::optional<IndexGuard> m_index;
    std::optional<Manifest> m_owed_set;
    int m_owed_code = 0; // of saving what was owed
    Manifest m_manifest; // of the set that was asked for
};

int code_of(const Manifest& manifest) {
    if (!manifest.log_gaps.empty())
        return static_cast<int>(ExitCode::logs_missing);
    return static_cast<int>(manifest.complete ? ExitCode::complete : ExitCode::items_failed);
}

int BackupRun::run() {
    m_ini = load_notes_ini(m_options.notes_ini);
    check_selection();
    m_store = open_directory_store(m_options.store, StoreAccess::write);
    try {
        m_owed.emplace(owed_file_of(*m_store));
        m_index.emplace(*m_store);
        choose_level();
        m_trace = open_trace_file(m_options.trace_file);
        BackupContext context{{m_ini, *m_store, m_options.tmp_dir, m_options.module, m_trace.get(),
                               m_options.verbose},
                              *m_owed,
                              *m_index};
        bool takes_all = m_request.level == "full" && m_request.arguments.empty();
        if (!takes_all)
            save_owed(context);
        m_manifest = run_backup_operation(context, std::move(m_request));
        if (takes_all)
            strike_gone(context);
    } catch (...) {
        m_store->discard_added();
        throw;
    }
    report_gaps(m_manifest);
    if (code_of(m_manifest) == static_cast<int>(ExitCode::items_failed))
        print_error("the set " + m_manifest.set + " is stored, but it is not complete",
                    "see what failed above; run as a user who may read every database, have the "
                    "server repair or remove what is no database, then back up again: until then "
                    "the server keeps its logs");
    return report();
}

void BackupRun::check_selection() {
    m_request.arguments = resolve_database_arguments(m_options.databases, m_ini.data_directory);
    m_request.scan = scan_selection(m_ini.data_directory, m_request.arguments);
    if (m_request.arguments.empty() && m_request.scan.databases.empty())
        throw ClientError(ExitCode::server_error,
                          "there is no database below the data directory " +
                              for_terminal(m_ini.data_directory) + " of " +
                              for_terminal(m_ini.file),
                          "is this the notes.ini of the server, and is its disk mounted?");
}

// The level that is asked for, or a full one where that has nothing to build on, and the base.
void BackupRun::choose_level() {
    m_request.level = m_options.level;
    m_request.base.clear();
    check_index();
    choose_base();
}

// With an entry that is lost from the index a database would silently not be saved.
void BackupRun::check_index() {
    std::string problem = m_index->problem_for(m_ini.data_directory);
    std::optional<BaseSet> base = find_base(*m_store, m_ini.data_directory);
    if (problem.empty() && !m_index->has_note() && base && !base->closed)
        problem = "the backup of the set " + base->set + " was not closed and left no index";
    if (problem.empty() || m_request.level == "copy")
        return;
    if (m_index->problem().empty() && !base)
        return; // its first backup, of which there is more to say
    bool selects = m_request.level == "diff" || m_request.level == "incr";
    bool whole = m_request.arguments.empty();
    if (selects && !(m_options.auto_full && whole))
        throw ClientError(ExitCode::damage_found,
                          problem + ": a backup of level " + m_request.level +
                              " might miss databases",
                          "take a full backup now: `qrtln backup --level full` without DATABASE" +
                              std::string(whole ? ", or add --auto-full" : ""));
    if (!whole) {
        print_message("warning: " + problem +
                      ": take a full backup of the whole server before the next diff or incr");
        return;
    }
    print_message(problem + ": this full backup begins a new one");
    m_request.level = "full";
    if (!m_index->problem().empty())
        m_index->set_aside();
}

// A differential or incremental backup is worth something only with what it builds on.
void BackupRun::choose_base() {
    if (m_request.level != "diff" && m_request.level != "incr")
        return;
    if (std::optional<BaseSet> base = find_base(*m_store, m_ini.data_directory)) {
        m_request.base = base->set;
        m_request.base_started = base->started;
        return;
    }
    std::string what = m_store->description() + " has no complete full set of the whole server " +
                       for_terminal(m_ini.data_directory);
    if (!m_options.auto_full || !m_request.arguments.empty())
        throw ClientError(
            ExitCode::failed, what + ", which a backup of level " + m_request.level + " builds on",
            "take one first: `qrtln backup --level full` without DATABASE" +
                std::string(m_request.arguments.empty() ? ", or add --auto-full" : ""));
    print_message(what + ": this backup becomes a full one (--auto-full)");
    m_request.level = "full";
}

// The databases of the list that can be saved by name. One that is gone is struck out; one that
// cannot be named waits for a whole full backup.
std::vector<DatabaseArgument> BackupRun::owed_arguments(const BackupContext& context) {
    strike_gone(context);
    std::vector<DatabaseArgument> arguments;
    for (const std::string& path : m_owed->of(m_ini.data_directory)) {
        try {
            for (DatabaseArgument& argument :
                 resolve_database_arguments({path}, m_ini.data_directory))
                arguments.push_back(std::move(argument));
        } catch (const ClientError& failure) {
            m_owed_code = static_cast<int>(ExitCode::items_failed);
            print_error("a database that an earlier run did not store cannot be saved by name: " +
                            std::string(failure.what()),
                        "a backup of the whole server with --level full saves it");
        }
    }
    return arguments;
}

// What a failed or killed run prepared counts as backed up for the server: it comes first, in a set
// of its own. Whatever becomes of that, the backup that was asked for is still worth making.
void BackupRun::save_owed(const BackupContext& context) {
    BackupRequest request;
    request.arguments = owed_arguments(context);
    if (request.arguments.empty())
        return;
    request.level = "full"; // of named databases: without logs
    request.reason = reason_owed;
    request.scan = scan_selection(m_ini.data_directory, request.arguments);
    print_message("an earlier run ended before it had stored " +
                  std::to_string(request.arguments.size()) + " databases: they are saved first");
    try {
        m_owed_set = run_backup_operation(context, std::move(request));
        m_owed_code = std::max(m_owed_code, code_of(*m_owed_set));
    } catch (const ClientError& failure) {
        throw_if_interrupted();
        m_owed_code = failure.exit_code();
        print_error("the databases of the earlier run could not be saved and stay owed: " +
                        std::string(failure.what()),
                    failure.hint());
        choose_level(); // its close may have lost the index
    }
}

void BackupRun::strike_gone(const BackupContext& context) {
    std::vector<std::string> gone;
    for (const std::string& path : context.owed.of(m_ini.data_directory)) {
        struct stat status {};
        bool missing = ::stat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
        if (!missing && !(S_ISDIR(status.st_mode) && is_database_name(path)))
            continue;
        gone.push_back(path);
        print_message("the database " + for_terminal(path) +
                      ", which an earlier run did not store, is gone from the server");
    }
    // Where the list cannot be written they are found gone once more.
    (void)context.owed.strike(m_ini.data_directory, gone);
}

void BackupRun::report_gaps(const Manifest& manifest) const {
    for (const LogGap& gap : manifest.log_gaps)
        print_error(describe(gap) + ": the server cannot be rolled forward past this",
                    &gap == &manifest.log_gaps.back()
                        ? "take a full backup now (`qrtln backup --level full`): it begins a new "
                          "chain; look for another program that archives or deletes logs"
                        : "");
}

int BackupRun::exit_code() const {
    int code = code_of(m_manifest);
    return code != 0 ? code : m_owed_code;
}

// What scripts get to know about a set.
nlohmann::json set_summary(const Manifest& manifest) {
    ManifestTotals sum = totals(manifest);
    nlohmann::json failed = nlohmann::json::array();
    nlohmann::json warnings = nlohmann::json::array();
    nlohmann::json gaps = nlohmann::json::array();
    for (const ManifestItem& item : manifest.items) {
        std::string path = printable_utf8(item.path);
        if (item.status == ItemStatus::failed)
            failed.push_back({{"path", path}, {"reason", printable_utf8(item.reason)}});
        for (const std::string& warning : item.warnings)
            warnings.push_back({{"path", path}, {"warning", printable_utf8(warning)}});
    }
    for (const LogGap& gap : manifest.log_gaps)
        gaps.push_back(describe(gap));
    return {{"status", status_text(manifest)},
            {"set", manifest.set},
            {"level", manifest.level},
            {"base", manifest.base},
            {"started", utc_time(manifest.started)},
            {"ended", utc_time(manifest.ended)},
            {"databases", sum.databases},
            {"items", sum.stored_items},
            {"bytes", sum.bytes},
            {"new_bytes", manifest.new_bytes},
            {"logs", log_range_json(manifest)},
            {"log_gaps", gaps},
            {"failed", failed},
            {"warnings", warnings}};
}

std::string set_lines(const Manifest& manifest) {
    ManifestTotals sum = totals(manifest);
    std::string text = "set " + manifest.set + ": " + status_text(manifest) + "\n  " +
                       std::to_string(sum.databases) + " databases, " +
                       std::to_string(sum.stored_items) + " items, " + human_bytes(sum.bytes) +
                       ", " + human_bytes(manifest.new_bytes) + " new in the store, " +
                       human_duration(manifest.ended - manifest.started) + "\n";
    if (!manifest.base.empty())
        text += "  builds on " + manifest.base + "\n";
    if (std::string logs = log_range_text(manifest); logs != "-")
        text += "  transaction logs " + logs + "\n";
    if (sum.warnings > 0)
        text += "  " + std::to_string(sum.warnings) + " warnings: `qrtln show " + manifest.set +
                "` lists them\n";
    if (sum.failed_items > 0)
        text += "  " + std::to_string(sum.failed_items) +
                " failed: the server was told that this backup is not complete\n";
    return text;
}

int BackupRun::report() const {
    int code = exit_code();
    if (!m_options.json) {
        print_output((m_owed_set ? set_lines(*m_owed_set) : "") + set_lines(m_manifest));
        return code;
    }
    nlohmann::json document = set_summary(m_manifest);
    document.update({{"command", "backup"},
                     {"exit_code", code},
                     {"store", printable_utf8(absolute_path(m_options.store))}});
    if (m_owed_set)
        document["owed"] = set_summary(*m_owed_set);
    print_json(document);
    return code;
}

} // namespace

int run_backup(const BackupOptions& options) {
    install_interrupt_handlers();
    return BackupRun(options).run();
}

} // namespace qrtln
