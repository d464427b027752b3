#include "client/backup/operation.h"

#include "client/backup/attachment_objects.h"
#include "client/backup/log_session.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/domino/database_link.h"
#include "client/domino/database_names.h"
#include "client/domino/notes_ini.h"
#include "client/domino/original.h"
#include "client/domino/since_time.h"
#include "client/module/host.h"
#include "client/module/temporary_directory.h"
#include "client/module/told.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/server_scope.h"
#include "client/sets/unmarked_logs.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::size_t read_block = std::size_t{1} << 20;
// Room for the names that the module gives its run-time data.
constexpr std::size_t runtime_name_room = 64;
constexpr const char* busy_reason = "another backup or a compaction of it is running";
// What the module writes to its protocol for each error.
constexpr std::string_view error_line = "DB_ErrHandler: ";
// What it writes when the server does not list its logs.
constexpr std::string_view logs_not_listed_line =
    "Getting transaction log ready to be archived fail";

DB_OPERATION_LEVEL module_level(const std::string& level) {
    if (level == "copy")
        return DB_LEVEL_COPY;
    if (level == "diff")
        return DB_LEVEL_DIFF;
    return level == "incr" ? DB_LEVEL_INCR : DB_LEVEL_FULL;
}

// A change in the same tick of a file system's clock leaves the time as it is, and no later backup
// would find it: the file is read when its time is past.
void wait_for_another_time(const timespec& changed) {
    using namespace std::chrono;
    // Whole seconds are those of a file system that has no others.
    const nanoseconds tick = changed.tv_nsec == 0 ? nanoseconds(seconds(2)) : milliseconds(20);
    timespec now{};
    if (::clock_gettime(CLOCK_REALTIME, &now) != 0)
        return;
    const nanoseconds age =
        seconds(now.tv_sec - changed.tv_sec) + nanoseconds(now.tv_nsec - changed.tv_nsec);
    if (age >= nanoseconds(0) && age < tick)
        std::this_thread::sleep_for(tick - age);
}

class BackupOperation {
  public:
    BackupOperation(const BackupContext& context, BackupRequest request)
        : m_context(context), m_request(std::move(request)), m_ini(context.ini),
          m_yielded(m_request.arguments.size(), false),
          m_rules(m_request.rules, m_ini.data_directory) {
        for (std::size_t i = 0; i < m_request.arguments.size(); ++i)
            m_argument_numbers.emplace(m_request.arguments[i].path, i);
    }
    Manifest run();

  private:
    void check_room();
    void start_operation();
    int init_operation();
    [[noreturn]] void report_failed_start();
    void describe_set();
    void store_items();
    bool next_item(std::string& path);
    void note_listing_failure();
    std::string server_reason(ModuleSession& session) const;
    std::string take_logs_in_session();
    void note_unchecked(const std::string& handed_out);
    void note_unput_question();
    void note_other_moment(const OtherMoment& other);
    std::string whole_path(const std::string& shown) const;
    void note_yield(const ManifestItem& item);
    void store_item(const std::string& path);
    void forget_item(const std::string& path);
    void drop_content(ManifestItem& item);
    void prepare_and_read(ManifestItem& item);
    Preparation prepare(const ManifestItem& item);
    void report_unprepared(ManifestItem& item, const std::string& first_problem);
    bool copy_fits(const std::string& path) const;
    bool read_content(ManifestItem& item, const std::string& file);
    bool read_content(ManifestItem& item, FileDescriptor content);
    void store_system_files();
    void store_found(const FoundFile& found);
    void store_other(ManifestItem item, const struct stat& status);
    bool is_held(const ManifestItem& item, const struct stat& status) const;
    void store_attachment_objects();
    void store_object(const AttachmentObjects& objects, const std::string& path);
    bool saves_objects() const {
        return saves_attachment_objects(m_request.level, !m_request.arguments.empty());
    }
    void store_database_link(ManifestItem item, const std::string& target);
    void take_database_link(const std::string& path, const struct stat& status);
    void name_link_targets();
    bool is_reached(const std::string& path);
    bool holds_nothing() const;
    void name_linked_databases(const std::string& link);
    void add_failed(const std::string& path, ItemKind kind, const std::string& reason);
    void store_own_notes_ini();
    void store_changed_notes_ini();
    void add_item(ManifestItem item);
    void add_unreached();
    void check_log_sizes();
    void fail_stored(ManifestItem& item, const std::string& reason);
    void report_item(const ManifestItem& item) const;
    void check_log_chain();
    void commit();
    void strike_owed();
    void note_index();
    std::string check_closed_index(bool closed);
    bool close_session(ModuleSession& session, bool good, std::string& error);
    void close_operation();
    void give_up() noexcept;
    void on_log(const std::string& line);
    void on_log_phase(const std::string& line);
    void on_server_status(const std::string& line);
    void on_index_event(IndexEvent event, const std::string& line);
    void on_trace(const std::string& line);
    // Whether the module chooses the items that changed, and passes over the others.
    bool selects_changes() const { return !m_request.base.empty(); }
    // The operation that hands items out now.
    ModuleSession& items() { return m_log_session ? m_log_session->session() : *m_session; }
    bool is_whole_full() const { return m_request.level == "full" && m_request.arguments.empty(); }

    const BackupContext& m_context;
    BackupRequest m_request;
    const NotesIni& m_ini;
    std::map<std::string, std::size_t> m_argument_numbers; // by path
    std::vector<bool> m_yielded;                           // by argument
    PathRules m_rules;
    std::optional<HeldFiles> m_held;                     // of diff and incr
    std::uint64_t m_unsaved_links = 0;                   // databases behind links that are excluded
    std::map<std::string, std::string> m_database_links; // with what they name
    std::optional<std::set<std::pair<dev_t, ino_t>>> m_reached; // the databases of the scan
    std::set<std::string> m_objects; // attachment objects that the module handed out
    // The session goes first: its child has the temporary folder in use.
    std::optional<TemporaryDirectory> m_temporary;
    std::optional<ModuleSession> m_session;
    std::optional<LogSession> m_log_session; // where the first does not get the logs
    std::optional<Progress> m_progress;
    Manifest m_manifest;
    std::set<std::string> m_seen;
    std::map<std::string, LogIdentity> m_logs;    // announced and not yet handed out
    std::string m_announced_log;                  // the newest of them
    std::vector<UncheckedItem> m_unchecked;       // told since the last item
    std::vector<LeftOut> m_left_out;              // told at any time
    std::vector<std::string> m_warnings_for_next; // about the item that was just handed out
    // what the module's protocol told
    std::string m_last_error_line;               // since the last item
    std::string m_logging_style;                 // where the server has no logs to archive
    std::optional<ServerStatus> m_server_status; // likewise; the last failure of the server's
    UnmarkedLogs m_unmarked;
    bool m_logs_not_listed = false; // the server did not list its logs
    bool m_listing_failed = false;  // the module ended before it had handed out everything
    std::string m_incomplete_copy;  // since the last preparation
    bool m_file_short = false;      // likewise
    std::string m_dbiid;            // likewise
    std::string m_index_begun_anew;
    std::string m_index_entry_lost;
    int m_index_entries = 0;
    bool m_archiving_in_progress = false;
    std::string m_looked_at;       // the database, as the module shows it
    bool m_question_begun = false; // whether it was modified; not put yet
    bool m_read_earlier = false;   // the time of the base, by the server
    OriginalReader m_originals;
    std::map<std::string, std::uint64_t> m_added; // objects of this run, with their stored sizes
    std::vector<ChainLink> m_chain; // before this set: from the base on, or of all sets without one
    bool m_has_base = false;
    std::string m_prepared; // the file that the present item was read from
    std::vector<std::byte> m_buffer;
};

Manifest BackupOperation::run() {
    try {
        if (m_context.store.runtime_directory().size() + runtime_name_room >= module_path_size)
            throw ClientError(ExitCode::failed, "the path of " + m_context.store.description() +
                                                    " is longer than the module takes");
        m_temporary.emplace(absolute_path(m_context.tmp_dir), m_ini.data_directory);
        check_room();
        m_manifest.started = std::time(nullptr);
        start_operation();
        describe_set();
        store_items();
        add_unreached();
        store_attachment_objects();
        store_system_files();
        check_log_sizes();
        throw_if_interrupted();
        if (holds_nothing()) {
            give_up();
            m_manifest.set.clear();
            return std::move(m_manifest);
        }
        commit();
    } catch (...) {
        give_up();
        throw;
    }
    m_progress.reset();
    m_log_session.reset();
    m_session.reset();
    if (int error = m_temporary->remove(); error != 0)
        print_message("warning: the temporary folder could not be removed: " +
                      system_error_text(error));
    return std::move(m_manifest);
}

// A copy that does not fit would fail after the server has worked for it.
void BackupOperation::check_room() {
    std::optional<std::uint64_t> room = free_bytes(m_temporary->path());
    if (room && *room < m_request.scan.largest)
        throw ClientError(ExitCode::failed,
                          "the temporary directory " + for_terminal(m_context.tmp_dir) + " has " +
                              human_bytes(*room) + " (" + std::to_string(*room) +
                              " bytes) free, the database " +
                              for_terminal(m_request.scan.largest_path) + " needs " +
                              human_bytes(m_request.scan.largest) + " (" +
                              std::to_string(m_request.scan.largest) + " bytes)",
                          "make room there, or name a folder with more room with --tmp-dir");
}

void BackupOperation::on_log_phase(const std::string& line) {
    if (std::optional<AnnouncedLog> log = parse_log_announcement(line))
        m_logs[m_announced_log = log->path] = log->identity;
    if (auto log = m_logs.find(m_announced_log); log != m_logs.end())
        if (std::string id = parse_whole_identity(line, log->second.number); !id.empty())
            log->second.whole_id = id;
    m_unmarked.read(line);
    if (line == logs_not_listed_line)
        m_logs_not_listed = true;
}

void BackupOperation::on_log(const std::string& line) {
    on_log_phase(line);
    if (line.starts_with(error_line))
        m_last_error_line = line.substr(error_line.size());
    if (std::optional<UncheckedItem> item = parse_unchecked_item(line)) {
        if (!item->modified_since && !m_last_error_line.empty())
            item->problem += ": " + m_last_error_line;
        m_last_error_line.clear();
        m_question_begun = false; // this line has the reason
        if (item->path.empty())
            item->path = m_looked_at;
        m_unchecked.push_back(std::move(*item));
    }
    if (std::optional<OtherMoment> other = parse_other_moment(line))
        note_other_moment(*other);
    if (std::optional<LeftOut> left_out = parse_left_out(line))
        m_left_out.push_back(std::move(*left_out));
    if (says_changes_incomplete(line))
        m_incomplete_copy = line;
    if (says_file_short(line))
        m_file_short = true;
    if (std::string style = logging_without_archive(line); !style.empty())
        m_logging_style = style;
    if (says_archiving_in_progress(line))
        m_archiving_in_progress = true;
    on_index_event(parse_index_event(line), line);
}

void BackupOperation::on_index_event(IndexEvent event, const std::string& line) {
    switch (event) {
    case IndexEvent::none:
        break;
    case IndexEvent::begun_anew:
        m_index_begun_anew = line;
        break;
    case IndexEvent::entry:
        ++m_index_entries;
        break;
    case IndexEvent::no_entry:
        --m_index_entries;
        break;
    case IndexEvent::entry_lost:
        m_index_entry_lost = line;
        break;
    case IndexEvent::unreadable:
        m_index_begun_anew = line; // no level may build on it
        m_index_entry_lost = line; // and it is not complete after this one
        break;
    }
}

void BackupOperation::on_server_status(const std::string& line) {
    if (std::optional<ServerStatus> status = parse_server_status(line))
        m_server_status = std::move(status);
}

void BackupOperation::on_trace(const std::string& line) {
    on_server_status(line);
    if (std::string dbiid = parse_prepared_dbiid(line); !dbiid.empty())
        m_dbiid = dbiid;
    ModifiedTest test = parse_modified_test(line);
    switch (test.step) {
    case ModifiedTest::Step::none:
        break;
    case ModifiedTest::Step::database:
        note_unput_question();
        m_looked_at = test.path;
        break;
    case ModifiedTest::Step::begun:
        m_question_begun = true;
        break;
    case ModifiedTest::Step::put:
        m_question_begun = false;
        break;
    }
}

// The module was about to ask whether a database was modified, and went on without having done so.
void BackupOperation::note_unput_question() {
    if (std::exchange(m_question_begun, false))
        m_unchecked.push_back({m_looked_at,
                               "the module could not tell whether it was modified: the server did "
                               "not write the time of the base",
                               true});
}

// Of what changed between the start of the base and a later moment the server does not tell.
void BackupOperation::note_other_moment(const OtherMoment& other) {
    if (other.read > m_request.base_started)
        m_unchecked.push_back(
            {other.path,
             "the module could not tell whether it was modified since its base: " +
                 describe(other) + "; " + other_moment_hint,
             true, true});
    else if (!std::exchange(m_read_earlier, true))
        print_message("warning: databases that did not change since the base are saved as well, "
                      "as " +
                      describe(other) + ": " + other_moment_hint);
}

int BackupOperation::init_operation() {
    m_session.emplace(
        m_context, [this](const std::string& line) { on_log(line); },
        [this](const std::string& line) { on_trace(line); });
    m_manifest.module_file = m_session->module_file();
    ModuleInfo info = m_session->host().info();
    m_manifest.module_client = info.client;
    m_manifest.module_version = info.version;
    m_manifest.module_release = info.release;
    if (info.item_handling != DB_FILE_PREPARE)
        throw ClientError(ExitCode::server_error, "the module " +
                                                      for_terminal(m_manifest.module_file) +
                                                      " does not hand out files");

    std::vector<std::string> variables = {"TMP_DIR=" + m_temporary->path()};
    if (m_request.arguments.empty())
        variables.emplace_back("DATABASE=NOTES");
    for (const DatabaseArgument& argument : m_request.arguments)
        variables.push_back("DATABASE=" + argument.value);
    if (m_request.level == "diff")
        variables.push_back("SNC_TIME=" + since_time_text(m_request.base_started));
    return m_session->init(DB_TYPE_BCK, module_level(m_request.level), std::move(variables));
}

void BackupOperation::start_operation() {
    int status = init_operation();
    if (status != DB_NUM_I_OK && m_archiving_in_progress && interrupt_signal() == 0) {
        // What a killed run left open on the server was ended by this failed start. One operation
        // a process: the second start gets a new one.
        print_message("the server had an archiving session open, which was ended: starting again");
        m_session->abandon();
        m_archiving_in_progress = false;
        status = init_operation();
    }
    if (status != DB_NUM_I_OK)
        report_failed_start();
    // With an index that lost its entries it passes databases over, and would forget the others'.
    if (!m_index_begun_anew.empty() && !is_whole_full())
        throw ClientError(ExitCode::server_error,
                          "the module does not read its index of databases, which a backup of "
                          "level " +
                              m_request.level + " builds on: " + for_terminal(m_index_begun_anew),
                          "look at the disk of the store, then take a full backup: `qrtln backup "
                          "--level full` without DATABASE");
}

void BackupOperation::report_failed_start() {
    std::string reason = m_session->reason();
    std::string hint;
    if (m_request.level == "incr" && !m_logging_style.empty()) {
        reason = "the server has " + m_logging_style + ": " + reason;
        hint = "an incremental backup is one of archived logs (TRANSLOG_Style=1); take --level " +
               std::string(m_ini.linear_logging ? "full" : "diff or full");
    } else if (m_archiving_in_progress) {
        hint = "another program archives the server's logs: only one may; wait until it has ended";
    }
    m_session->report_failed_start("backup", reason, hint);
}

void BackupOperation::describe_set() {
    m_manifest.level = m_request.level;
    m_manifest.set = new_set_name(m_context.store, m_manifest.started, m_request.level);
    m_manifest.reason = m_request.reason;
    m_manifest.base = m_request.base;
    m_manifest.whole_system = m_request.arguments.empty();
    for (const DatabaseArgument& argument : m_request.arguments)
        m_manifest.arguments.push_back(argument.path);
    m_manifest.predecessor = newest_set(m_context.store, m_ini.sets);
    m_manifest.server_name = m_ini.server_name;
    m_manifest.names_server = true;
    m_manifest.own_name = m_ini.own_name;
    m_manifest.id_file = m_ini.id_file;
    m_manifest.host = host_name();
    m_manifest.notes_ini = m_ini.file;
    m_manifest.data_directory = m_ini.data_directory;
    m_manifest.client_version = client_version();
}

void BackupOperation::store_items() {
    m_buffer.resize(read_block);
    m_progress.emplace(m_request.scan.databases.size());
    for (std::string path; next_item(path);)
        store_item(path);
}

// Whether the module handed out another item.
bool BackupOperation::next_item(std::string& path) {
    throw_if_interrupted();
    m_session->forget_reasons(); // what the start reported is no error of an item
    m_server_status.reset();
    ModuleItem next = m_session->host().get_item();
    note_unchecked(next.status == DB_NUM_I_OK ? next.name : std::string());
    path = next.name;
    if (next.status == DB_NUM_I_OK) {
        m_session->item_begun();
        return true;
    }
    if (next.status != DB_NUM_I_COMPLETE)
        note_listing_failure();
    return false;
}

// What was handed out before is worth keeping: the server counts its databases as backed up.
void BackupOperation::note_listing_failure() {
    throw_if_interrupted();
    std::string reason = server_reason(*m_session);
    if (totals(m_manifest).stored_items == 0)
        throw ClientError(ExitCode::server_error,
                          "the module cannot list the next item: " + for_terminal(reason),
                          "--verbose shows what the module did");
    m_listing_failed = !m_logs_not_listed;
    if (m_logs_not_listed && m_request.log_session && is_whole_full())
        reason = take_logs_in_session();
    if (m_listing_failed)
        add_failed(m_ini.data_directory, ItemKind::directory,
                   "the module cannot list what comes next: " + reason);
    else if (!reason.empty())
        add_failed(log_phase_item, ItemKind::log, reason);
}

std::string BackupOperation::server_reason(ModuleSession& session) const {
    return session.reason() +
           (m_server_status ? " (status " + std::to_string(m_server_status->number) + ")" : "");
}

// Returns why the logs are not all there; empty: they are.
std::string BackupOperation::take_logs_in_session() {
    print_message(
        "the server lists its transaction logs only in an archiving session: one is begun");
    std::string reason;
    try {
        m_log_session.emplace(
            m_context, m_temporary->path(), [this](const std::string& line) { on_log_phase(line); },
            [this](const std::string& line) { on_server_status(line); });
        auto wanted = [this](const std::string& path) {
            m_server_status.reset();
            return m_logs.contains(path) || item_kind_of(path) == ItemKind::log_control;
        };
        m_server_status.reset();
        if (!m_log_session->take(wanted, [this](const std::string& path) { store_item(path); }))
            reason = server_reason(m_log_session->session());
    } catch (const ClientError& failure) {
        // The databases are stored, whatever becomes of the second process.
        throw_if_interrupted();
        if (failure.exit_code() != static_cast<int>(ExitCode::server_error))
            throw;
        reason = failure.what();
    }
    if (!reason.empty() && m_log_session) {
        m_log_session->session().abandon();
        m_log_session.reset();
    }
    return reason;
}

// Where the module chooses, an item that it could not decide about never comes: it has failed. At
// full level it comes all the same, and the line is about the item that was just handed out.
void BackupOperation::note_unchecked(const std::string& handed_out) {
    note_unput_question();
    for (UncheckedItem& unchecked : std::exchange(m_unchecked, {})) {
        if (!selects_changes()) {
            if (!handed_out.empty())
                m_warnings_for_next.push_back(
                    unchecked.problem + "; it is stored, but the index of databases has no entry "
                                        "for it, and a differential backup will fail on it");
            continue;
        }
        ManifestItem item;
        item.path = unchecked.path.empty() ? m_ini.data_directory : whole_path(unchecked.path);
        if (unchecked.may_come && (item.path == handed_out || m_seen.contains(item.path)))
            continue;
        if (!unchecked.path.empty() && database_link_target(item.path))
            continue; // its own bytes and what it leads to are looked at later
        item.kind = unchecked.path.empty() ? ItemKind::directory : item_kind_of(item.path);
        item.reason = unchecked.problem;
        if (unchecked.path.empty())
            item.reason = "a database below it: " + item.reason;
        else if (m_ini.linear_logging &&
                 unchecked.problem.find("needs to be backed up") != std::string::npos)
            item.reason = "with linear logging the server does not tell whether a logged database "
                          "changed";
        m_seen.insert(item.path);
        add_item(std::move(item));
    }
    m_last_error_line.clear();
}

// The path that the module showed, which it cuts and translates for its messages: where just one
// database can be meant, its own.
std::string BackupOperation::whole_path(const std::string& shown) const {
    struct stat status {};
    if (::lstat(shown.c_str(), &status) == 0)
        return shown;
    const std::string* meant = nullptr;
    for (const std::string& database : m_request.scan.databases)
        if (database.starts_with(shown)) {
            if (meant != nullptr)
                return shown;
            meant = &database;
        }
    return meant != nullptr ? *meant : shown;
}

// Marks the arguments that an item comes from: itself, or a folder above it.
void BackupOperation::note_yield(const ManifestItem& item) {
    if (item.kind == ItemKind::directory)
        return;
    bool data_notes_ini = item.path == m_ini.data_directory + "/notes.ini";
    for (std::string path = item.path;; path = folder_of(path)) {
        if (auto found = m_argument_numbers.find(path); found != m_argument_numbers.end())
            m_yielded[found->second] = true;
        if (path == "/" || data_notes_ini) // that one comes with every selection
            return;
    }
}

void BackupOperation::store_item(const std::string& path) {
    auto finish = [this](DB_ITEM_RESULT result) { return items().finish(result); };
    // Folders come again for every kind of file in them. A log comes again when it filled up after
    // it was handed out as the active one: the server will remove it, and only the second copy is
    // whole.
    bool again = !m_seen.insert(path).second;
    if (again && m_logs.contains(path))
        forget_item(path);
    else if (again) {
        (void)finish(DB_ITEM_EXCLUDED);
        return;
    }
    ManifestItem item = m_originals.look_at(path);
    if (auto log = m_logs.extract(path)) {
        item.log = log.mapped();
        item.kind = ItemKind::log;
    }
    std::vector<std::string> warnings = std::exchange(m_warnings_for_next, {});
    bool data_notes_ini = path == m_ini.data_directory + "/notes.ini";
    struct stat original {};
    if (data_notes_ini && path != m_ini.file && ::stat(path.c_str(), &original) != 0 &&
        errno == ENOENT) {
        // The module names this path always; the file in use is elsewhere.
        (void)finish(DB_ITEM_EXCLUDED);
        store_own_notes_ini();
        return;
    }
    note_yield(item);
    if (saves_objects() && item.kind != ItemKind::directory && is_attachment_object(path)) {
        m_objects.insert(path);
        (void)finish(DB_ITEM_EXCLUDED);
        return;
    }
    if (std::optional<std::string> target = database_link_target(path)) {
        (void)finish(DB_ITEM_EXCLUDED);
        store_database_link(std::move(item), *target);
        return;
    }
    if (item.kind == ItemKind::database)
        m_progress->next_database();
    m_prepared.clear();
    if (item.reason.empty() && item.kind != ItemKind::directory)
        prepare_and_read(item);
    bool stored = item.reason.empty();
    if (stored) {
        item.status = ItemStatus::stored;
        item.warnings.insert(item.warnings.begin(), warnings.begin(), warnings.end());
    }
    if (finish(stored ? DB_ITEM_SUCCESS : DB_ITEM_FAIL) != DB_NUM_I_OK && stored)
        item.warnings.push_back("stored, but the module could not clean up after it: " +
                                items().reason());
    // Some copies the module leaves behind: the next database needs their room.
    if (m_prepared != path && is_below(m_prepared, m_temporary->path()))
        ::unlink(m_prepared.c_str());
    add_item(std::move(item));
    if (data_notes_ini)
        store_own_notes_ini();
}

void BackupOperation::forget_item(const std::string& path) {
    auto& items = m_manifest.items;
    auto found = std::find_if(items.begin(), items.end(),
                              [&](const ManifestItem& item) { return item.path == path; });
    if (found == items.end())
        return;
    drop_content(*found);
    items.erase(found);
}

// Takes back what was stored of an item.
void BackupOperation::drop_content(ManifestItem& item) {
    std::string object = std::exchange(item.object, {});
    const auto& items = m_manifest.items;
    if (!object.empty() && std::none_of(items.begin(), items.end(),
                                        [&](const auto& other) { return other.object == object; }))
        if (m_added.erase(object) > 0)
            m_context.store.discard_object(object);
    item.size = item.stored_size = 0;
}

bool BackupOperation::copy_fits(const std::string& path) const {
    std::size_t relative = path.size() - std::min(path.size(), m_ini.data_directory.size());
    return m_temporary->path().size() + relative < module_path_size;
}

void BackupOperation::prepare_and_read(ManifestItem& item) {
    if (item.kind == ItemKind::database) {
        if (!copy_fits(item.path)) {
            item.reason = "the path of its copy below " + m_temporary->path() +
                          " is longer than the module takes; a shorter --tmp-dir helps";
            return;
        }
        // From here on the server may count it as backed up.
        m_context.owed.add(m_ini.data_directory, item.path);
        item.restored = m_context.owed.is_restored(m_ini.data_directory, item.path);
    }
    m_incomplete_copy.clear();
    m_file_short = false;
    m_dbiid.clear();
    auto [prepared, usable, first] = prepare(item);
    item.prepare_status = prepared.status;
    if (interrupt_signal() != 0) {
        item.reason = "interrupted";
        return;
    }
    if (!usable) {
        report_unprepared(item, first);
        return;
    }
    if (!first.empty())
        item.warnings.push_back("prepared at the second attempt; the first failed: " + first);
    if (!m_incomplete_copy.empty()) {
        item.reason =
            "the changes made during its copy are not complete in it: " + m_incomplete_copy;
        return;
    }
    struct stat original {};
    if (m_file_short && ::stat(item.path.c_str(), &original) == 0 &&
        static_cast<std::uint64_t>(original.st_size) <= maximal_link_file) {
        item.reason = "the server opens a larger database for its " +
                      human_bytes(static_cast<std::uint64_t>(original.st_size)) +
                      ": it may be a link to that one, of a form that is not known";
        return;
    }
    if (m_file_short)
        item.warnings.emplace_back("its file is shorter than the server says: zeros stand for the "
                                   "rest in the copy; have the server check the database");
    if (prepared.status == DB_NUM_W_WARNING)
        item.warnings.emplace_back("not transaction-logged: it can be restored as it was at this "
                                   "backup, but not rolled forward");
    item.dbiid = m_dbiid;
    if (item.kind == ItemKind::database)
        item.copied = std::time(nullptr) + 1; // the server may have gone on until now
    m_prepared = prepared.name;
    (void)read_content(item, prepared.name);
    if (item.reason.empty() && item.copied == 0)
        item.copied = std::time(nullptr) + 1;
}

// The second attempt at once ends what a killed run left on the server. What others do there is
// waited for.
Preparation BackupOperation::prepare(const ManifestItem& item) {
    m_server_status.reset();
    Preparation prepared = items().prepare(item.path);
    bool told = false;
    while (!prepared.usable && m_server_status && is_busy(*m_server_status)) {
        if (!std::exchange(told, true) && m_context.busy.left().count() > 0)
            print_message("waiting up to " + std::to_string(m_context.busy.left().count()) +
                          " s for " + for_terminal(item.path) + ": " + busy_reason);
        if (!m_context.busy.pause())
            break;
        items().forget_reasons();
        m_server_status.reset();
        prepared = items().prepare(item.path);
    }
    return prepared;
}

void BackupOperation::report_unprepared(ManifestItem& item, const std::string& first_problem) {
    std::string last_problem = items().reason();
    if (m_server_status && is_busy(*m_server_status)) {
        item.reason = busy_reason + (": " + last_problem) + " (status " +
                      std::to_string(m_server_status->number) + "; --busy-wait is " +
                      std::to_string(m_context.busy.limit().count()) + " s)";
        return;
    }
    item.reason = "the server could not prepare it: " + last_problem;
    if (!first_problem.empty() && first_problem != last_problem)
        item.reason += " (the first attempt: " + first_problem + ")";
    if (!is_utf8(item.path))
        item.reason += " (its name is not UTF-8: run qrtln with the locale of the server)";
    std::optional<std::uint64_t> room = free_bytes(m_temporary->path());
    struct stat status {};
    if (room && item.kind == ItemKind::database && ::stat(item.path.c_str(), &status) == 0 &&
        *room < static_cast<std::uint64_t>(status.st_size))
        item.reason += " (the temporary directory has only " + human_bytes(*room) +
                       " free; make room there or name another with --tmp-dir)";
}

// Whether the file changed so that another try may do.
bool BackupOperation::read_content(ManifestItem& item, const std::string& file) {
    // O_NONBLOCK: a FIFO that took the file's place must not hang the run.
    FileDescriptor content =
        is_below(file, m_temporary->path())
            ? m_temporary->open_file(file)
            : FileDescriptor(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (content)
        return read_content(item, std::move(content));
    item.reason = errno == ENOENT ? "it is gone: it was there when the module listed it"
                                  : "cannot open it: " + system_error_text(errno);
    return false;
}

bool BackupOperation::read_content(ManifestItem& item, FileDescriptor content) {
    struct stat before {};
    if (::fstat(content.get(), &before) != 0) {
        item.reason = "cannot look at it: " + system_error_text(errno);
        return false;
    }
    if (!S_ISREG(before.st_mode)) {
        item.reason = std::string("it is ") + file_type_name(before.st_mode) + ", no file";
        return false;
    }
    // Nobody but us writes to a database's copy, and nobody at all to a log that is full.
    bool still = item.kind == ItemKind::database || (item.log && !item.log->active);
    if (!still)
        wait_for_another_time(before.st_mtim);
    ::posix_fadvise(content.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    // One consistent length: what is there now, even if the file grows meanwhile.
    auto expected = static_cast<std::uint64_t>(before.st_size);
    std::unique_ptr<ObjectWriter> object = m_context.store.create_object();
    std::uint64_t read = 0;
    while (read < expected) {
        items().host().forward_interrupt();
        if (interrupt_signal() != 0) {
            item.reason = "interrupted";
            return false;
        }
        std::size_t wanted = std::min<std::uint64_t>(m_buffer.size(), expected - read);
        ssize_t got = read_up_to(content.get(), std::span(m_buffer.data(), wanted));
        if (got < 0) {
            item.reason = "cannot read it: " + system_error_text(static_cast<int>(-got));
            return false;
        }
        if (got == 0)
            break;
        object->write(Bytes(m_buffer.data(), static_cast<std::size_t>(got)));
        read += static_cast<std::uint64_t>(got);
        m_progress->add_bytes(static_cast<std::uint64_t>(got));
    }
    struct stat after {};
    if (::fstat(content.get(), &after) != 0) {
        item.reason = "cannot look at it: " + system_error_text(errno);
        return false;
    }
    auto now = static_cast<std::uint64_t>(after.st_size);
    std::string change = "its size changed from " + std::to_string(expected) + " to " +
                         std::to_string(now) + " bytes while it was read";
    bool whole_or_nothing = is_attachment_object(item.path);
    if (read < expected || now < expected) {
        item.reason = now != expected ? change
                                      : "only " + std::to_string(read) + " of its " +
                                            std::to_string(expected) + " bytes could be read";
        return now != expected;
    }
    if (now > expected) {
        if (still || whole_or_nothing) {
            item.reason = change;
            return whole_or_nothing;
        }
        item.warnings.push_back(change + "; " + std::to_string(read) + " bytes are stored");
    }
    bool same_time = after.st_mtim.tv_sec == before.st_mtim.tv_sec &&
                     after.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
    if (item.kind == ItemKind::other && now == expected && !same_time) {
        item.reason = "it was changed while it was read";
        return true;
    }
    StoredObject stored = object->finish();
    item.object = stored.hash;
    item.size = stored.size;
    item.stored_size = stored.stored_size;
    if (stored.added)
        m_added[stored.hash] = stored.stored_size;
    return false;
}

// A notes.ini outside the data directory is part of the server too; the module does not know it.
void BackupOperation::store_own_notes_ini() {
    std::string module_path = m_ini.data_directory + "/notes.ini";
    struct stat in_data {};
    struct stat in_use {};
    // One file under two names, by whatever kind of link, is stored once.
    bool same = ::stat(module_path.c_str(), &in_data) == 0 &&
                ::stat(m_ini.file.c_str(), &in_use) == 0 && in_data.st_dev == in_use.st_dev &&
                in_data.st_ino == in_use.st_ino;
    if (same || m_seen.contains(m_ini.file))
        return;
    m_seen.insert(m_ini.file);
    ManifestItem item = m_originals.look_at(m_ini.file);
    if (item.reason.empty())
        (void)read_content(item, m_ini.file);
    if (item.reason.empty())
        item.status = ItemStatus::stored;
    add_item(std::move(item));
}

// The module looks at a notes.ini in the data directory only.
void BackupOperation::store_changed_notes_ini() {
    struct stat status {};
    if (::stat(m_ini.file.c_str(), &status) != 0 || status.st_mtim.tv_sec >= m_request.base_started)
        store_own_notes_ini();
}

void BackupOperation::report_item(const ManifestItem& item) const {
    if (item.status != ItemStatus::stored && interrupt_signal() == 0)
        print_message(
            (item.status == ItemStatus::failed ? "failed: " : "left out, as --exclude says: ") +
            for_terminal(item.path) + ": " + for_terminal(item.reason));
    if (m_context.verbose)
        for (const std::string& warning : item.warnings)
            print_message("warning: " + for_terminal(item.path) + ": " + for_terminal(warning));
}

void BackupOperation::add_item(ManifestItem item) {
    if (item.status == ItemStatus::failed && item.kind == ItemKind::database &&
        is_below(item.path, m_ini.data_directory) &&
        m_rules.acknowledges(path_below(item.path, m_ini.data_directory)))
        item.status = ItemStatus::left_out;
    report_item(item);
    m_manifest.items.push_back(std::move(item));
}

// What the module passed over without a word must not look saved.
void BackupOperation::add_unreached() {
    auto add = [this](const std::string& path, const std::string& reason, ItemKind kind) {
        if (!m_seen.insert(path).second)
            return;
        ManifestItem item;
        item.path = path;
        item.kind = kind;
        item.reason = reason;
        add_item(std::move(item));
    };
    // Where the module cannot go the client can, but for databases.
    struct stat file {};
    for (const auto& [path, reason] : m_request.scan.unreachable)
        if (!m_request.arguments.empty() || !m_request.other_files || is_database_name(path) ||
            ::lstat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode))
            add(path, reason, item_kind_of(path));
    for (const auto& [path, reason] : m_request.missing_folders) {
        if (m_seen.erase(path) > 0) // one that is empty was handed out
            forget_item(path);
        add(path, reason, ItemKind::directory);
    }
    for (const LeftOut& left_out : m_left_out)
        add(left_out.path, left_out.reason, ItemKind::directory);
    // A database that did not change is passed over, and so is notes.ini outside the data
    // directory.
    if (m_request.level == "diff" && m_request.arguments.empty())
        store_changed_notes_ini();
    for (const ManifestItem& item : m_request.left_out) // told already
        if (m_seen.insert(item.path).second)
            m_manifest.items.push_back(item);
    if (selects_changes())
        return;
    struct stat status {};
    for (const std::string& path : m_request.scan.databases)
        if (!m_seen.contains(path) && (::stat(path.c_str(), &status) == 0 || errno != ENOENT))
            add(path,
                m_listing_failed ? "it was not reached"
                                 : "the module did not hand it out: --trace shows what it did",
                ItemKind::database);
    for (std::size_t i = 0; i < m_request.arguments.size(); ++i)
        if (!m_yielded[i] && !m_listing_failed) {
            // The folder itself may have been handed out, just nothing in it.
            m_seen.erase(m_request.arguments[i].path);
            add(m_request.arguments[i].path,
                "DATABASE '" + m_request.arguments[i].given +
                    "' selected nothing: the module saves databases and the files of a server "
                    "(.nsf, .ntf, .box, .ncf, .id, .dic, .cfg, .njf, .dsk, .nlo)",
                m_request.arguments[i].directory ? ItemKind::directory
                                                 : item_kind_of(m_request.arguments[i].path));
        }
}

void BackupOperation::add_failed(const std::string& path, ItemKind kind,
                                 const std::string& reason) {
    ManifestItem item;
    item.path = path;
    item.kind = kind;
    item.reason = reason;
    m_seen.insert(path);
    add_item(std::move(item));
}

// What lies beside the files that the module hands out, with the whole system.
void BackupOperation::store_system_files() {
    if (!m_request.arguments.empty()) {
        name_link_targets();
        return;
    }
    if (selects_changes() && m_request.other_files)
        m_held.emplace(m_context.store, m_request.base, m_ini.sets);
    // A database is the module's, and so is a link to a file that it handed out before: it tells
    // itself what did not change. Of a folder behind a link it knows no link.
    auto known = [this](const std::string& path, const struct stat& status) {
        struct stat target {};
        bool link = S_ISLNK(status.st_mode) && ::stat(path.c_str(), &target) == 0;
        if (link && S_ISDIR(target.st_mode))
            return false;
        bool file = S_ISREG(link ? target.st_mode : status.st_mode);
        if (file && !link && is_database_name(path))
            take_database_link(path, status);
        return m_seen.contains(path) || (link && m_held && m_held->is_of_module(path)) ||
               (file && (is_database_name(path) || is_attachment_object(path)));
    };
    LeftOutFiles left_out = find_system_files(m_ini, m_rules, known, [this](const auto& found) {
        m_session->host().forward_interrupt();
        throw_if_interrupted();
        if (found.type == FoundFile::Type::file)
            name_linked_databases(found.path);
        if (m_request.other_files)
            store_found(found);
    });
    // notes.ini may lie elsewhere, and an incremental backup has no other look at it.
    struct stat status {};
    if (m_held && m_request.level == "incr" && ::stat(m_ini.file.c_str(), &status) == 0 &&
        !is_held(m_originals.describe(m_ini.file, ItemKind::file, status), status))
        store_own_notes_ini();
    name_link_targets();
    left_out.excluded += m_unsaved_links;
    m_manifest.other_files = m_request.other_files;
    if (m_request.other_files)
        m_manifest.left_out = left_out;
}

void BackupOperation::store_found(const FoundFile& found) {
    if (m_seen.contains(found.path)) {
        auto same = [&](const ManifestItem& item) { return item.path == found.path; };
        const auto& items = m_manifest.items;
        auto told = std::find_if(items.begin(), items.end(), same);
        bool stored = told != items.end() && told->status == ItemStatus::stored;
        if (!stored || found.type == FoundFile::Type::folder)
            return;
        forget_item(found.path); // a folder that is none
    }
    if (found.type == FoundFile::Type::unreadable) {
        add_failed(found.path, ItemKind::other, found.problem);
        return;
    }
    ItemKind kind = found.type == FoundFile::Type::folder ? ItemKind::directory
                    : found.type == FoundFile::Type::link ? ItemKind::link
                                                          : ItemKind::other;
    ManifestItem item = m_originals.describe(found.path, kind, found.status);
    if (kind == ItemKind::link) {
        std::string target(PATH_MAX, '\0');
        ssize_t length = ::readlink(found.path.c_str(), target.data(), target.size());
        if (length <= 0)
            item.reason = errno == ENOENT ? "it is gone: it was there when its folder was listed"
                                          : "cannot read the link: " + system_error_text(errno);
        item.target = target.substr(0, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }
    if (item.reason.empty() && is_held(item, found.status))
        return;
    m_seen.insert(found.path);
    if (kind == ItemKind::other) {
        store_other(std::move(item), found.status);
        return;
    }
    if (item.reason.empty()) {
        item.status = ItemStatus::stored;
        item.copied = kind == ItemKind::link ? std::time(nullptr) + 1 : 0;
    }
    add_item(std::move(item));
}

bool BackupOperation::is_held(const ManifestItem& item, const struct stat& status) const {
    return m_held && m_held->has(item, static_cast<std::uint64_t>(status.st_size),
                                 m_request.level == "diff" && !S_ISDIR(status.st_mode));
}

void BackupOperation::store_other(ManifestItem item, const struct stat& status) {
    constexpr int attempts = 3;
    const std::string relative = path_below(item.path, m_ini.data_directory);
    SafeFolder data(m_ini.data_directory);
    bool again = true;
    for (int attempt = 0; again && attempt < attempts && interrupt_signal() == 0; ++attempt) {
        std::string problem;
        struct stat now = status;
        FileDescriptor content = data.open_file(relative, problem);
        int error = errno;
        if (content && ::fstat(content.get(), &now) != 0)
            problem = system_error_text(errno);
        item = m_originals.describe(item.path, item.kind, now);
        again = false;
        if (!problem.empty())
            item.reason = !content && error == ENOENT
                              ? "it is gone: it was there when its folder was listed"
                              : problem;
        else
            again = read_content(item, std::move(content));
    }
    throw_if_interrupted();
    if (item.reason.empty()) {
        item.status = ItemStatus::stored;
        item.copied = std::time(nullptr) + 1;
    }
    add_item(std::move(item));
}

// The objects that the databases refer to, which come into being while those are copied.
void BackupOperation::store_attachment_objects() {
    if (!saves_objects() || holds_nothing())
        return;
    AttachmentObjects objects(m_context.store, m_ini,
                              {.level = m_request.level,
                               .base = m_request.base,
                               .named = !m_request.arguments.empty(),
                               .comes_first = !m_request.reason.empty(),
                               .folder_may_be_empty = m_request.attachments_may_be_gone,
                               .listed = std::move(m_objects)});
    ObjectPlan plan = objects.plan();
    for (std::vector<ManifestItem>* items : {&plan.folders, &plan.failed, &plan.refer})
        for (ManifestItem& item : *items)
            if (m_seen.insert(item.path).second || item.kind != ItemKind::directory)
                add_item(std::move(item));
    for (const std::string& path : plan.read)
        store_object(objects, path);
}

// One that is being written is waited for a moment.
void BackupOperation::store_object(const AttachmentObjects& objects, const std::string& path) {
    constexpr int attempts = 10;
    constexpr std::chrono::milliseconds pause(100);
    ManifestItem item;
    bool again = true;
    for (int attempt = 0; again && attempt < attempts; ++attempt) {
        if (attempt > 0)
            std::this_thread::sleep_for(pause);
        m_session->host().forward_interrupt();
        throw_if_interrupted();
        item = m_originals.look_at(path);
        item.kind = ItemKind::other;
        again = item.reason.empty() && read_content(item, path);
    }
    throw_if_interrupted();
    if (item.reason.empty()) {
        item.status = ItemStatus::stored;
        item.copied = std::time(nullptr) + 1;
    } else if (!exists(path)) {
        item = objects.gone(path);
    }
    m_seen.insert(path);
    add_item(std::move(item));
}

// Its own bytes: for the server it is the database that it leads to.
void BackupOperation::store_database_link(ManifestItem item, const std::string& target) {
    m_database_links[item.path] = target;
    item.kind = ItemKind::other;
    (void)read_content(item, item.path);
    throw_if_interrupted();
    if (item.reason.empty()) {
        item.status = ItemStatus::stored;
        item.copied = std::time(nullptr) + 1;
    }
    add_item(std::move(item));
}

// Of one that the module did not hand out.
void BackupOperation::take_database_link(const std::string& path, const struct stat& status) {
    std::optional<std::string> target = database_link_target(path);
    if (!target || m_seen.contains(path))
        return;
    m_database_links[path] = *target;
    ManifestItem item = m_originals.describe(path, ItemKind::other, status);
    if (is_held(item, status))
        return;
    m_seen.insert(path);
    store_database_link(std::move(item), *target);
}

// What a link leads to is saved where the module finds it, and else must not look saved.
void BackupOperation::name_link_targets() {
    const std::string data = real_path(m_ini.data_directory).value_or(m_ini.data_directory);
    for (const auto& [link, target] : m_database_links) {
        bool inside = is_below(real_path(target).value_or(target), data);
        bool left_to_others = inside && (exists(target) || !m_request.arguments.empty());
        if (left_to_others || is_reached(target) || m_seen.contains(target))
            continue;
        const std::string shown = path_below(link, m_ini.data_directory);
        if (m_rules.of(shown, false) != PathRules::Verdict::taken)
            ++m_unsaved_links;
        else
            add_failed(target, ItemKind::database,
                       (exists(target) ? "it lies behind the database link "
                                       : "it is not there, and the database link leads to it: ") +
                           link +
                           ", which the module does not follow: have a symbolic link lead "
                           "there, or leave it out with --exclude '" +
                           shown + "'");
    }
}

// Whether the module reaches the database, through a symbolic link perhaps.
bool BackupOperation::is_reached(const std::string& path) {
    struct stat status {};
    if (!m_reached) {
        m_reached.emplace();
        for (const std::string& database : m_request.scan.databases)
            if (::stat(database.c_str(), &status) == 0)
                m_reached->emplace(status.st_dev, status.st_ino);
    }
    return ::stat(path.c_str(), &status) == 0 &&
           m_reached->contains({status.st_dev, status.st_ino});
}

// Whether a set that comes first would tell of nothing but databases that are left out again.
bool BackupOperation::holds_nothing() const {
    const auto& items = m_manifest.items;
    return !m_request.reason.empty() &&
           std::none_of(items.begin(), items.end(), [](const ManifestItem& item) {
               return item.status == ItemStatus::failed ||
                      (item.status == ItemStatus::stored && is_database_name(item.path));
           });
}

// Databases that the server shows, and the module does not go to, must not look saved.
void BackupOperation::name_linked_databases(const std::string& link) {
    if (!is_directory_link(link))
        return;
    LinkedDatabases linked = databases_behind(link, m_ini);
    if (linked.databases.empty() && linked.unknown.empty())
        return;
    const std::string shown = shown_folder(link, m_ini.data_directory);
    auto name = [&](const std::string& path, const std::string& problem) {
        bool folder = path != linked.target && is_below(path, linked.target);
        std::string shown_path = shown + (folder ? "/" + path_below(path, linked.target) : "");
        if (is_reached(path))
            return;
        if (m_rules.of(shown_path, false) != PathRules::Verdict::taken)
            ++m_unsaved_links;
        else if (!m_seen.contains(path))
            add_failed(
                path, item_kind_of(path),
                "it lies behind the directory link " + link +
                    (problem.empty() ? ", which the module does not follow" : "; " + problem) +
                    ": have a symbolic link lead there, or leave it out with --exclude '" + shown +
                    "/*'");
    };
    for (const std::string& database : linked.databases)
        name(database, "");
    for (const auto& [path, problem] : linked.unknown)
        name(path, problem);
}

// The full extents of one log have one size. The server removes what is stored of one: a short one
// must not count.
void BackupOperation::check_log_sizes() {
    const std::vector<ManifestItem>& items = m_manifest.items;
    if (std::none_of(items.begin(), items.end(), [](const auto& item) { return item.log; }))
        return;
    std::optional<BaseSet> base = find_base(m_context.store, m_ini.sets);
    m_has_base = base.has_value();
    m_chain = load_log_chain(m_context.store, base ? base->set : "", m_ini.sets);
    ExtentSizes sizes;
    sizes.add(items);
    for (const ChainLink& link : m_chain)
        sizes.add(link.extent_sizes);
    for (ManifestItem& item : m_manifest.items) {
        if (!item.log || item.log->active || item.status != ItemStatus::stored)
            continue;
        if (std::uint64_t whole = sizes.of(*item.log); item.size != whole)
            fail_stored(item, "it has " + std::to_string(item.size) +
                                  " bytes, but the full extents of this log have " +
                                  std::to_string(whole));
    }
}

void BackupOperation::fail_stored(ManifestItem& item, const std::string& reason) {
    item.status = ItemStatus::failed;
    item.reason = reason;
    drop_content(item);
    report_item(item);
}

// The logs up to this set must form one chain from the last complete full set on. Incomplete sets
// count with what they hold; the server keeps its logs after them, so these come again.
void BackupOperation::check_log_chain() {
    ChainLink own{m_manifest.set, {}};
    for (const ManifestItem& item : m_manifest.items)
        if (item.log) // one that failed has its own message
            own.logs.push_back(*item.log);
    if (own.logs.empty())
        return;
    bool new_base = is_whole_full() && m_manifest.complete;
    std::vector<ChainLink> chain;
    if (m_has_base && !new_base)
        chain = std::move(m_chain);
    if (m_manifest.level == "incr")
        for (const ChainLink& link : chain)
            if (!link.logs.empty())
                m_manifest.previous = link.set;
    chain.push_back(std::move(own));
    m_manifest.log_gaps = find_log_gaps(chain);
}

void BackupOperation::commit() {
    m_progress.reset();
    m_manifest.complete = totals(m_manifest).failed_items == 0;
    m_context.store.flush();
    check_log_chain();
    for (const auto& [object, size] : m_added)
        m_manifest.new_bytes += size;
    m_manifest.ended = std::time(nullptr);
    m_context.store.write_manifest(m_manifest.set, serialize(m_manifest));
    m_context.store.keep_added();
    strike_owed();
    if (m_manifest.complete && !stored_logs(m_manifest).empty() &&
        m_request.before_logs_are_archived)
        m_request.before_logs_are_archived();
    close_operation();
}

// The close is what changes the index, and only with success.
void BackupOperation::note_index() {
    if (!m_manifest.complete || m_manifest.level == "copy")
        return;
    if (!m_index_entry_lost.empty())
        throw ClientError(ExitCode::server_error,
                          "the module could not write its index of databases: " +
                              m_index_entry_lost);
    m_context.index.expect_close(m_manifest.set, {.data_directory = m_ini.data_directory,
                                                  .child = m_session->host().process_id(),
                                                  .folder = m_session->runtime_directory(),
                                                  .whole_full = is_whole_full(),
                                                  .has_entries = m_index_entries > 0,
                                                  .begun_anew = !m_index_begun_anew.empty()});
}

void BackupOperation::strike_owed() {
    std::vector<std::string> stored;
    for (const ManifestItem& item : m_manifest.items)
        if (is_database_name(item.path) && item.status == ItemStatus::stored)
            stored.push_back(item.path);
    if (int error = m_context.owed.strike(m_ini.data_directory, stored); error != 0)
        print_message("warning: the list of owed databases could not be updated, the next backup "
                      "saves these databases again: " +
                      system_error_text(error));
}

// Whether the module closed an operation as it was told to; if not, `error` says why.
bool BackupOperation::close_session(ModuleSession& session, bool good, std::string& error) {
    std::string problem;
    try {
        if (session.close(good) != DB_NUM_I_OK)
            problem = session.reason();
    } catch (const ClientError& failure) {
        problem = failure.what();
    }
    if (error.empty())
        error = problem;
    return problem.empty();
}

void BackupOperation::close_operation() {
    std::string& error = m_manifest.close_error;
    try {
        note_index();
    } catch (const ClientError& failure) {
        error = failure.what();
    }
    bool good = m_manifest.complete && error.empty();
    if (m_log_session) // first: the other close would end its archiving session
        (void)close_session(m_log_session->session(), good, error);
    bool closed = close_session(*m_session, good, error) && good;
    if (error.empty())
        error = m_unmarked.problem(); // which the module counts as success
    std::string hint = "the server keeps its logs, and the next backup stores them again";
    if (!m_unmarked.problem().empty())
        hint += "; its disk fills up until it marks them: look at its console";
    if (std::string problem = check_closed_index(closed);
        !problem.empty() && (error.empty() || closed)) {
        error += (error.empty() ? "" : "; ") + problem;
        hint = "make room and look at the rights in " +
               for_terminal(m_context.store.runtime_directory()) +
               ", then take a full backup: `qrtln backup --level full` without DATABASE";
    }
    if (error.empty())
        return;
    try {
        m_context.store.rewrite_manifest(m_manifest.set, serialize(m_manifest));
    } catch (const ClientError& failure) {
        print_message("warning: the manifest does not say so: " + std::string(failure.what()));
    }
    throw ClientError(
        ExitCode::server_error,
        "the set " + m_manifest.set +
            " was stored, but the server did not close the backup: " + for_terminal(error),
        hint);
}

// What is wrong with the index after the close, if something is.
std::string BackupOperation::check_closed_index(bool closed) {
    std::string problem;
    try {
        problem = m_context.index.check_closed(m_manifest.set, m_ini.data_directory, closed);
    } catch (const ClientError& failure) {
        return failure.what();
    }
    try {
        m_context.index.note_closed(m_manifest.set);
    } catch (const ClientError& failure) {
        print_message("warning: " + std::string(failure.what())); // the note stays as it is
    }
    return problem;
}

// Leaves the server as after a failed run and the store as before it. The first failure is what
// gets reported: those of the clean-up are not.
void BackupOperation::give_up() noexcept {
    m_progress.reset();
    if (m_log_session)
        m_log_session->session().abandon();
    m_log_session.reset();
    if (m_session)
        m_session->abandon();
    m_session.reset();
    m_context.store.discard_added();
    m_temporary.reset();
}

} // namespace

Manifest run_backup_operation(const BackupContext& context, BackupRequest request) {
    return BackupOperation(context, std::move(request)).run();
}

} // namespace qrtln
