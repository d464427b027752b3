// `qrtln backup`: first what earlier runs owe, then what was asked for.

#include "client/backup/arguments.h"
#include "client/backup/away_folder.h"
#include "client/backup/operation.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/server.h"
#include "client/domino/database_names.h"
#include "client/domino/notes_ini.h"
#include "client/domino/server_lock.h"
#include "client/module/temporary_directory.h"
#include "client/sets/catalogue.h"
#include "client/sets/distrusted_bases.h"
#include "client/sets/log_chain.h"
#include "client/sets/manifest.h"
#include "client/sets/set_links.h"
#include "client/sets/unmarked_logs.h"

#include <algorithm>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr const char* reason_owed = "owed";

class BackupRun {
  public:
    explicit BackupRun(const BackupOptions& options)
        : m_options(options), m_busy(std::chrono::seconds(options.busy_wait)) {}
    int run();

  private:
    void check_selection();
    void choose_level();
    void claim_logs();
    void report_incomplete() const;
    void check_index();
    void choose_base();
    void check_place_of_store() const;
    std::string distrust_of(const BaseSet& base);
    std::string broken_chain(const BaseSet& base);
    std::optional<ClientError> problem_with(const std::optional<BaseSet>& base);
    std::string missing_set(const std::string& base);
    std::string forgotten_since(const BaseSet& base);
    bool takes_all() const { return m_request.level == "full" && m_request.arguments.empty(); }
    void resolve_removed();
    bool is_removed(const std::string& path) const;
    void find_missing_folders();
    void save_first(const BackupContext& context);
    std::set<std::string> what_comes_first();
    std::vector<DatabaseArgument> arguments_of(const std::set<std::string>& paths);
    std::set<std::string> owed_and_there();
    void report_unnamed();
    void report_gaps(const Manifest& manifest) const;
    int exit_code() const;
    int report() const;
    void print_report(int code) const;

    const BackupOptions& m_options;
    NotesIni m_ini;
    BackupRequest m_request;
    FileDescriptor m_trace;
    FileDescriptor m_server_lock;
    std::unique_ptr<Store> m_store;
    std::optional<OwedDatabases> m_owed;
    std::optional<IndexGuard> m_index;
    std::optional<DistrustedBases> m_distrusted;
    BusyWait m_busy;
    std::vector<std::string> m_removed;           // full paths
    SetsSince m_since;                            // the base, of diff and incr
    std::map<std::string, std::string> m_unnamed; // what cannot be saved by name, and why
    std::optional<Manifest> m_owed_set;
    int m_owed_code = 0; // of saving what comes first
    Manifest m_manifest; // of the set that was asked for
};

int code_of(const Manifest& manifest) {
    if (!manifest.log_gaps.empty())
        return static_cast<int>(ExitCode::logs_missing);
    return static_cast<int>(manifest.complete ? ExitCode::complete : ExitCode::items_failed);
}

std::string incomplete_hint(const Manifest& manifest) {
    const auto& items = manifest.items;
    auto failed = std::find_if(items.begin(), items.end(), [&](const ManifestItem& item) {
        return item.status == ItemStatus::failed && item.kind == ItemKind::database &&
               is_below(item.path, manifest.data_directory);
    });
    std::string hint = "see what failed above; run as a user who may read every file, have the "
                       "server repair or remove what is no database, then back up again: until "
                       "then the server keeps its logs";
    if (failed != items.end() && manifest.whole_system)
        hint += "; a database that can never be saved holds up nothing with --exclude '" +
                for_terminal(path_below(failed->path, manifest.data_directory)) +
                "': it is tried each time all the same, and told";
    return hint + "; --exclude leaves out other files that may be lost";
}

int BackupRun::run() {
    m_ini = load_server(m_options);
    check_selection();
    check_place_of_store();
    require_usable_tmp_dir(m_options.tmp_dir, m_ini.data_directory);
    m_store = open_directory_store(m_options.store, StoreAccess::write);
    try {
        use_server(*m_store, m_ini, m_options);
        m_owed.emplace(owed_file_of(*m_store));
        m_index.emplace(*m_store, m_ini.server_name);
        m_distrusted.emplace(*m_store);
        m_server_lock = lock_server(m_ini);
        if (std::string problem = last_close_problem(*m_store, m_ini.sets); !problem.empty())
            print_message("warning: " + problem);
        choose_level();
        claim_logs();
        m_trace = open_trace_file(m_options.trace_file);
        BackupContext context{operation_context(m_ini, *m_store, m_options, m_trace.get()), *m_owed,
                              *m_index, m_busy};
        if (!takes_all())
            save_first(context);
        find_missing_folders();
        m_manifest = run_backup_operation(context, m_request);
        if (takes_all())
            (void)owed_and_there();
        report_unnamed();
    } catch (...) {
        m_store->discard_added();
        throw;
    }
    report_gaps(m_manifest);
    if (code_of(m_manifest) == static_cast<int>(ExitCode::items_failed))
        report_incomplete();
    return report();
}

void BackupRun::report_incomplete() const {
    std::string hint = incomplete_hint(m_manifest);
    const std::vector<ManifestItem>& items = m_manifest.items;
    if (m_ini.linear_logging && m_manifest.level == "diff")
        hint = "the server has linear transaction logging (TRANSLOG_Style=2): take --level full "
               "instead of diff";
    else if (std::any_of(items.begin(), items.end(),
                         [](const auto& item) { return item.path == log_phase_item; }))
        hint = "what is not named above is stored, the transaction logs stay on the server, which "
               "did not list them; " +
               std::string(m_manifest.level == "full" && !m_options.log_session
                               ? "if it lists them only within an archiving session, add "
                                 "--log-session: the set is then complete and a base of diff and "
                                 "incr; else look at its console"
                               : "look at its console and back up again");
    print_error("the set " + m_manifest.set + " is stored, but it is not complete", hint);
}

void BackupRun::check_selection() {
    m_request.other_files = !m_options.databases_only;
    m_request.log_session = m_options.log_session;
    m_request.rules = m_options.rules;
    (void)PathRules(m_options.rules, m_ini.data_directory);
    m_request.arguments = resolve_database_arguments(m_options.databases, m_ini.data_directory);
    m_request.scan = scan_selection(m_ini.data_directory, m_request.arguments);
    resolve_removed();
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

// Only one store may archive the server's logs.
void BackupRun::claim_logs() {
    if (!m_ini.archives_logs || !(takes_all() || m_request.level == "incr"))
        return;
    if (!m_options.take_over)
        if (std::string other = other_log_archive(m_ini, *m_store); !other.empty())
            throw ClientError(ExitCode::failed, other,
                              "back up into that store, or with --level copy; if this store is to "
                              "archive the logs from now on, say --level full --take-over");
    m_request.before_logs_are_archived = [this] {
        if (std::string problem = note_log_archive(m_ini, *m_store); !problem.empty())
            print_message("warning: which store archives the transaction logs is not noted: " +
                          problem);
    };
}

// With an entry that is lost from the index a database would silently not be saved.
void BackupRun::check_index() {
    std::string problem = m_index->problem_for(m_ini.data_directory);
    std::optional<BaseSet> base = find_base(*m_store, m_ini.sets);
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
    std::optional<BaseSet> base = find_base(*m_store, m_ini.sets);
    // Noted by every run: later ones may see a clock that is right again.
    if (base && std::time(nullptr) < base->started)
        m_distrusted->add(base->set);
    if (m_request.level != "diff" && m_request.level != "incr")
        return;
    std::optional<ClientError> problem = problem_with(base);
    if (!problem) {
        m_request.base = base->set;
        m_request.base_started = base->started;
        return;
    }
    if (!m_options.auto_full || !m_request.arguments.empty())
        throw ClientError(*problem);
    print_message(problem->what() + std::string(": this backup becomes a full one (--auto-full)"));
    m_request.level = "full";
}

// Why a backup must not build on its base; nothing: it may.
std::optional<ClientError> BackupRun::problem_with(const std::optional<BaseSet>& base) {
    if (std::string missing = missing_set(base ? base->set : ""); !missing.empty())
        return ClientError(ExitCode::damage_found, missing, missing_set_hint);
    std::string problem;
    OtherServers others;
    if (!base) {
        others = other_servers(*m_store, m_ini.sets);
        problem = m_store->description() + " has no complete full set of the whole server " +
                  for_terminal(m_ini.data_directory) + ", which a backup of level " +
                  m_request.level + " builds on" + (others.what.empty() ? "" : "; " + others.what);
    } else {
        problem = distrust_of(*base);
    }
    if (problem.empty())
        problem = forgotten_since(*base);
    if (problem.empty())
        problem = broken_chain(*base);
    if (problem.empty())
        return std::nullopt;
    return ClientError(ExitCode::failed, problem,
                       "take one first: `qrtln backup --level full` without DATABASE" +
                           std::string(m_request.arguments.empty() ? ", or add --auto-full" : "") +
                           (others.hint.empty() ? "" : "; " + others.hint));
}

// What only a forgotten set had would be passed over, as the server takes it for saved.
std::string BackupRun::forgotten_since(const BaseSet& base) {
    for (const auto& [set, server] : m_store->forgotten_sets())
        if (set > base.set && !set.ends_with("-copy") &&
            (server.empty() || server == m_ini.server_name))
            return "the set " + set + ", which came after " + base.set +
                   ", was forgotten, and perhaps databases with it";
    return {};
}

// A set that is missing behind the base, or that would have been the base; empty: none is.
std::string BackupRun::missing_set(const std::string& base) {
    SetLinks links;
    for (const std::string& set : m_store->set_names())
        if (set > base)
            if (CatalogueEntry entry = load_set(*m_store, set, m_ini.sets); entry.manifest)
                links.add(*entry.manifest);
    for (const MissingSet& missing : links.missing(*m_store))
        if (missing.set > base)
            return describe(missing);
    return {};
}

// Why the logs of an incremental backup would lead nowhere; empty: they do. Without --auto-full
// they are stored all the same, and the end tells of the gap: the server may keep no others.
std::string BackupRun::broken_chain(const BaseSet& base) {
    if (m_request.level != "incr" || !m_options.auto_full || !m_request.arguments.empty())
        return {};
    std::vector<LogGap> gaps = find_log_gaps(load_log_chain(*m_store, base.set, m_ini.sets));
    return gaps.empty() ? std::string() : describe(gaps.front());
}

// Why a base tells nothing about what was changed since then; empty: it does.
std::string BackupRun::distrust_of(const BaseSet& base) {
    m_since = look_at_sets_since(*m_store, base, m_ini.sets);
    std::string when;
    if (std::time_t now = std::time(nullptr); now < base.started)
        when = "shows " + utc_time(now);
    else if (!m_since.begun_before.empty())
        when = "was set back when the set " + m_since.begun_before + " was made";
    else if (m_distrusted->contains(base.set))
        when = "was set back once";
    if (when.empty())
        return {};
    return "a backup of level " + m_request.level + " would miss changes: the clock " + when +
           ", before the start of the set " + base.set + " at " + utc_time(base.started);
}

// The server takes what is below its data directory for its own, and the next backup would save it.
void BackupRun::check_place_of_store() const {
    std::string existing = absolute_path(m_options.store);
    while (!real_path(existing) && existing.size() > 1)
        existing = folder_of(existing);
    std::optional<std::string> store = real_path(existing);
    std::optional<std::string> data = real_path(m_ini.data_directory);
    if (store && data && is_below(*store, *data))
        throw ClientError(ExitCode::failed,
                          "the store " + for_terminal(m_options.store) +
                              " is inside the data directory " + for_terminal(m_ini.data_directory),
                          "name a folder elsewhere with --store");
}

// The folders of --removed, as full paths.
void BackupRun::resolve_removed() {
    for (const std::string& given : m_options.removed) {
        std::string path =
            absolute_path(given.starts_with('/') ? given : m_ini.data_directory + "/" + given);
        auto refuse = [&](const std::string& reason) {
            throw ClientError(ExitCode::failed,
                              "--removed '" + for_terminal(given) + "': " + reason,
                              "name a folder below the data directory " +
                                  for_terminal(m_ini.data_directory) + " that is gone");
        };
        if (path == m_ini.attachment_folder) {
            m_request.attachments_may_be_gone = true; // its backup looks whether they are
            continue;
        }
        if (path == m_ini.data_directory || !is_below(path, m_ini.data_directory) ||
            (path + "/").find("/../") != std::string::npos)
            refuse("it is not below the data directory");
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
            refuse("it is no folder");
        std::optional<AwayFolder> away = away_folder(path + "/", m_ini.data_directory);
        if (!away)
            refuse("the folder is there, and not empty");
        if (!away->readable)
            refuse(for_terminal(away->path) + ": " + away->reason);
        m_removed.push_back(path);
    }
}

bool BackupRun::is_removed(const std::string& path) const {
    return std::any_of(m_removed.begin(), m_removed.end(),
                       [&](const std::string& folder) { return is_below(path, folder); });
}

// A set of everything does not count as one while a folder is away, on a disk that is not mounted:
// the databases in it would be missing in all that builds on the set.
void BackupRun::find_missing_folders() {
    if (!m_request.arguments.empty() || !m_request.base.empty())
        return;
    std::optional<BaseSet> base = find_base(*m_store, m_ini.sets);
    CatalogueEntry entry = base ? load_set(*m_store, base->set) : CatalogueEntry{};
    if (!entry.manifest)
        return;
    const std::vector<std::string>& there = m_request.scan.databases;
    std::set<std::string> databases(there.begin(), there.end());
    std::map<std::string, std::optional<AwayFolder>> looked_at;         // by folder
    std::map<std::string, std::pair<std::string, std::size_t>> missing; // reason and databases
    for (const ManifestItem& item : entry.manifest->items) {
        if (item.kind != ItemKind::database || item.status != ItemStatus::stored ||
            databases.contains(item.path) || is_removed(item.path) ||
            !is_below(item.path, m_ini.data_directory))
            continue;
        auto [away, added] = looked_at.try_emplace(folder_of(item.path));
        if (added)
            away->second = away_folder(item.path, m_ini.data_directory);
        if (!away->second || !away->second->readable) // the scan tells of one that is not readable
            continue;
        auto& [reason, count] = missing[away->second->path];
        reason = away->second->reason;
        ++count;
    }
    for (const auto& [path, what] : missing)
        m_request.missing_folders.emplace_back(
            path, what.first + ", but the set " + base->set + " has " +
                      std::to_string(what.second) +
                      " databases below it: mount its disk; if it was removed for good, say "
                      "--removed " +
                      path);
}

// The owed databases that are there. One that is gone is struck out, but not when its folder is
// away.
std::set<std::string> BackupRun::owed_and_there() {
    std::vector<std::string> gone;
    std::map<std::string, std::pair<std::string, std::size_t>> away; // reason and databases
    std::set<std::string> there;
    for (const std::string& path : m_owed->of(m_ini.data_directory)) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 &&
            !(S_ISDIR(status.st_mode) && is_database_name(path))) {
            there.insert(path);
            continue;
        }
        int error = errno;
        bool missing = S_ISDIR(status.st_mode) || error == ENOENT || error == ENOTDIR;
        std::optional<AwayFolder> folder;
        if (!is_removed(path) && is_below(path, m_ini.data_directory))
            folder = away_folder(path, m_ini.data_directory);
        if (!folder && !missing)
            folder = AwayFolder{path, "it cannot be looked at: " + system_error_text(error)};
        if (folder) {
            auto& [reason, count] = away[folder->path];
            reason = folder->reason;
            ++count;
            continue;
        }
        // One that was restored and lost again stays: no log leads over that when it comes back.
        if (m_owed->is_restored(m_ini.data_directory, path))
            continue;
        gone.push_back(path);
        print_message("the database " + for_terminal(path) +
                      ", which an earlier run did not store, is gone from the server");
    }
    for (const auto& [folder, what] : away) {
        m_owed_code = static_cast<int>(ExitCode::items_failed);
        print_error(std::to_string(what.second) + " databases of " + for_terminal(folder) +
                        ", which an earlier run did not store, are away: " + what.first,
                    "mount its disk and back up again; if it was removed for good, say --removed " +
                        for_terminal(folder));
    }
    // Where the list cannot be written they are found gone once more.
    (void)m_owed->strike(m_ini.data_directory, gone);
    return there;
}

// What must be saved by name before the backup that was asked for, which may pass it over: each
// kind with a message of its own.
std::set<std::string> BackupRun::what_comes_first() {
    std::set<std::string> paths = owed_and_there();
    auto tell = [](std::size_t count, const std::string& what) {
        if (count > 0)
            print_message(std::to_string(count) + " databases " + what +
                          ": they are saved first, in a set of their own");
    };
    tell(paths.size(), "were prepared or restored and are in no set yet as they are");
    if (m_request.base.empty())
        return paths;
    std::size_t before = paths.size();
    if (m_request.level == "incr") // one that is not logged would wait for the next full backup
        for (const std::string& path : m_request.scan.databases)
            if (!m_since.databases.contains(path))
                paths.insert(path);
    tell(paths.size() - before, "are in no set since " + m_request.base);
    before = paths.size();
    for (const std::string& path : m_request.scan.databases)
        if (!fits_index(path))
            paths.insert(path);
    tell(paths.size() - before, "have names that the index of databases cannot hold (with \"=\", a "
                                "line end, or too long)");
    return paths;
}

// Those that can be named.
std::vector<DatabaseArgument> BackupRun::arguments_of(const std::set<std::string>& paths) {
    std::vector<DatabaseArgument> arguments;
    for (const std::string& path : paths) {
        try {
            for (DatabaseArgument& argument :
                 resolve_database_arguments({path}, m_ini.data_directory))
                arguments.push_back(std::move(argument));
        } catch (const ClientError& failure) {
            m_unnamed[path] = failure.what();
        }
    }
    return arguments;
}

// Whatever becomes of it, the backup that was asked for is still worth making.
void BackupRun::save_first(const BackupContext& context) {
    BackupRequest request;
    request.arguments = arguments_of(what_comes_first());
    if (request.arguments.empty())
        return;
    request.level = "full"; // of named databases: without logs
    request.reason = reason_owed;
    request.rules = m_request.rules;
    request.scan = scan_selection(m_ini.data_directory, request.arguments);
    try {
        m_owed_set = run_backup_operation(context, std::move(request));
        for (const ManifestItem& item : m_owed_set->items)
            if (item.status == ItemStatus::left_out)
                m_request.left_out.push_back(item);
        if (m_owed_set->set.empty())
            m_owed_set.reset();
        else
            m_owed_code = std::max(m_owed_code, code_of(*m_owed_set));
    } catch (const ClientError& failure) {
        throw_if_interrupted();
        m_owed_code = failure.exit_code();
        print_error("the databases that come first could not be saved; what is owed stays so: " +
                        std::string(failure.what()),
                    failure.hint());
        choose_level(); // its close may have lost the index
    }
}

// What had to come first and cannot be named is a failure, unless this backup took it.
void BackupRun::report_unnamed() {
    for (const ManifestItem& item : m_manifest.items)
        if (item.status == ItemStatus::stored)
            m_unnamed.erase(item.path);
    const PathRules rules(m_request.rules, m_ini.data_directory);
    for (const auto& [path, reason] : m_unnamed) {
        if (rules.acknowledges(path_below(path, m_ini.data_directory)))
            continue;
        m_owed_code = std::max(m_owed_code, static_cast<int>(ExitCode::items_failed));
        print_error("the database " + for_terminal(path) +
                        " is not saved, as it cannot be named: " + reason,
                    "a backup of the whole server with --level full saves it");
    }
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
    nlohmann::json left_out = nlohmann::json::array();
    nlohmann::json warnings = nlohmann::json::array();
    nlohmann::json gaps = nlohmann::json::array();
    for (const ManifestItem& item : manifest.items) {
        std::string path = printable_utf8(item.path);
        if (item.status != ItemStatus::stored)
            (item.status == ItemStatus::failed ? failed : left_out)
                .push_back({{"path", path}, {"reason", printable_utf8(item.reason)}});
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
            {"ended", utc_time(complete_at(manifest))},
            {"databases", sum.databases},
            {"items", sum.stored_items},
            {"other_files", sum.other_files},
            {"attachment_objects", sum.attachment_objects},
            {"left_out", left_out_json(manifest.left_out)},
            {"left_out_databases", left_out},
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
    if (sum.other_files > 0)
        text += "  " + std::to_string(sum.other_files) +
                " of the items are other files and links than the module hands out\n";
    if (sum.attachment_objects > 0)
        text += "  " + std::to_string(sum.attachment_objects) +
                " of the items are attachment objects\n";
    if (manifest.left_out.any())
        text += "  " + left_out_text(manifest.left_out) + "\n";
    text += left_out_databases_text(manifest);
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

// The sets are there, whether or not anybody can be told.
int BackupRun::report() const {
    int code = exit_code();
    try {
        print_report(code);
    } catch (const ClientError& failure) {
        print_error(failure.what() + std::string("; the backup ended with exit code ") +
                        std::to_string(code),
                    "`qrtln list` shows its sets");
    }
    return code;
}

void BackupRun::print_report(int code) const {
    if (!m_options.json) {
        print_output((m_owed_set ? set_lines(*m_owed_set) : "") + set_lines(m_manifest));
        return;
    }
    nlohmann::json document = set_summary(m_manifest);
    document.update({{"command", "backup"},
                     {"exit_code", code},
                     {"store", printable_utf8(absolute_path(m_options.store))}});
    if (m_owed_set)
        document["owed"] = set_summary(*m_owed_set);
    print_json(document);
}

} // namespace

int run_backup(const BackupOptions& options) {
    install_interrupt_handlers();
    return BackupRun(options).run();
}

} // namespace qrtln
