// `qrtln backup`: one set from one operation of the module.
//
// Order, for what a crash leaves at any moment: objects are flushed and renamed one by one, then
// their folders, then the manifest, then the module hears STATUS=0. Before the manifest is there
// the set does not exist; a crash after it only makes the server keep logs that are stored already.

#include "client/catalogue.h"
#include "client/commands/commands.h"
#include "client/database_arguments.h"
#include "client/error.h"
#include "client/interrupt.h"
#include "client/module_host.h"
#include "client/module_log.h"
#include "client/notes_ini.h"
#include "client/output.h"
#include "client/store/store.h"
#include "client/temporary_directory.h"
#include "client/text.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <grp.h>
#include <map>
#include <optional>
#include <pwd.h>
#include <set>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::size_t read_block = std::size_t{1} << 20;
// Room for the names that the module gives its run-time data.
constexpr std::size_t runtime_name_room = 64;
constexpr const char* status_failed = "STATUS=1";
constexpr const char* status_ok = "STATUS=0";

ItemKind kind_of(const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    if (is_database_name(name))
        return ItemKind::database;
    if (name.size() > 4 && ::strcasecmp(name.c_str() + name.size() - 4, ".txn") == 0)
        return ItemKind::log;
    return name == "nlogctrl.lfh" ? ItemKind::log_control : ItemKind::file;
}

const char* file_type_name(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFIFO:
        return "a FIFO";
    case S_IFSOCK:
        return "a socket";
    case S_IFBLK:
        return "a block device";
    case S_IFCHR:
        return "a character device";
    case S_IFDIR:
        return "a folder";
    default:
        return "of an unknown type";
    }
}

// Where $Notes_ExecDirectory should point when the environment does not say.
std::string exec_directory(const NotesIni& ini) {
    const char* set = std::getenv("Notes_ExecDirectory");
    if ((set != nullptr && *set != '\0') || ini.program_directory.empty() ||
        ::access((ini.program_directory + "/libnotes.so").c_str(), R_OK) != 0)
        return {};
    return ini.program_directory;
}

class BackupRun {
  public:
    explicit BackupRun(const BackupOptions& options) : m_options(options) {}
    int run();

  private:
    void check_selection();
    void check_room();
    void open_trace();
    void start_operation();
    int init_operation();
    void store_items();
    void store_item(const std::string& path);
    ManifestItem look_at(const std::string& path, struct stat& status);
    void prepare_and_read(ManifestItem& item);
    void read_content(ManifestItem& item, const std::string& file);
    void store_own_notes_ini();
    void add_item(ManifestItem item);
    void add_unreached();
    void commit();
    void give_up() noexcept;
    int report() const;
    std::string module_reason();
    void on_log(const std::string& line);
    std::string user_name(uid_t uid);
    std::string group_name(gid_t gid);

    const BackupOptions& m_options;
    NotesIni m_ini;
    std::vector<DatabaseArgument> m_arguments;
    std::vector<bool> m_yielded; // by argument
    SelectionScan m_scan;
    FileDescriptor m_trace;
    // The host goes first: its child has the temporary folder and the store in use.
    std::unique_ptr<Store> m_store;
    std::optional<TemporaryDirectory> m_temporary;
    std::optional<ModuleHost> m_host;
    std::optional<Progress> m_progress;
    Manifest m_manifest;
    std::set<std::string> m_seen;
    std::map<std::string, LogIdentity> m_logs; // announced and not yet handed out
    std::string m_last_log_line;
    bool m_archiving_in_progress = false;
    bool m_item_pending = false;
    bool m_operation_open = false;
    std::string m_prepared; // the file that the present item was read from
    std::map<uid_t, std::string> m_users;
    std::map<gid_t, std::string> m_groups;
    std::vector<std::byte> m_buffer;
};

int BackupRun::run() {
    m_ini = load_notes_ini(m_options.notes_ini);
    check_selection();
    m_store = open_directory_store(m_options.store, StoreAccess::write);
    try {
        if (m_store->runtime_directory().size() + runtime_name_room >= module_path_size)
            throw ClientError(ExitCode::failed, "the path of " + m_store->description() +
                                                    " is longer than the module takes");
        m_temporary.emplace(absolute_path(m_options.tmp_dir), m_ini.data_directory);
        check_room();
        open_trace();
        m_manifest.started = std::time(nullptr);
        start_operation();
        store_items();
        add_unreached();
        throw_if_interrupted();
        commit();
    } catch (...) {
        give_up();
        throw;
    }
    m_progress.reset();
    m_host.reset();
    if (int error = m_temporary->remove(); error != 0)
        print_message("warning: the temporary folder could not be removed: " +
                      system_error_text(error));
    return report();
}

void BackupRun::check_selection() {
    m_arguments = resolve_database_arguments(m_options.databases, m_ini.data_directory);
    m_yielded.assign(m_arguments.size(), false);
    m_scan = scan_selection(m_ini.data_directory, m_arguments);
    if (m_arguments.empty() && m_scan.databases == 0)
        throw ClientError(ExitCode::failed,
                          "there is no database below the data directory " +
                              for_terminal(m_ini.data_directory) + " of " +
                              for_terminal(m_ini.file),
                          "is this the notes.ini of the server, and is its disk mounted?");
}

// A copy that does not fit would fail after the server has worked for it.
void BackupRun::check_room() {
    std::optional<std::uint64_t> room = free_bytes(m_temporary->path());
    if (room && *room < m_scan.largest)
        throw ClientError(ExitCode::failed,
                          "the temporary directory " + for_terminal(m_options.tmp_dir) + " has " +
                              human_bytes(*room) + " (" + std::to_string(*room) +
                              " bytes) free, the database " + for_terminal(m_scan.largest_path) +
                              " needs " + human_bytes(m_scan.largest) + " (" +
                              std::to_string(m_scan.largest) + " bytes)",
                          "make room there, or name a folder with more room with --tmp-dir");
}

void BackupRun::open_trace() {
    if (m_options.trace_file.empty())
        return;
    m_trace = FileDescriptor(
        ::open(m_options.trace_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!m_trace)
        throw ClientError(ExitCode::failed, "cannot open the trace file " +
                                                for_terminal(m_options.trace_file) + ": " +
                                                system_error_text(errno));
}

void BackupRun::on_log(const std::string& line) {
    m_last_log_line = line;
    if (m_options.verbose)
        print_message("module: " + for_terminal(line));
    // A trace that cannot be written must not fail the backup.
    if (m_trace)
        (void)write_all(m_trace.get(), as_bytes("log: " + line + "\n"));
    if (std::optional<AnnouncedLog> log = parse_log_announcement(line))
        m_logs[log->path] = log->identity;
    if (says_archiving_in_progress(line))
        m_archiving_in_progress = true;
}

// The module's error, else the last it wrote to its protocol.
std::string BackupRun::module_reason() {
    std::string reason = m_host->error().message;
    if (reason.empty())
        reason = m_last_log_line;
    return reason.empty() ? "the module gave no reason" : printable_utf8(reason);
}

int BackupRun::init_operation() {
    ModuleOptions module;
    module.module_file = find_module(m_options.module);
    module.runtime_directory = m_store->runtime_directory();
    module.exec_directory = exec_directory(m_ini);
    module.on_log = [this](const std::string& line) { on_log(line); };
    if (m_trace)
        module.on_trace = [this](const std::string& line) {
            (void)write_all(m_trace.get(), as_bytes("trace: " + line + "\n"));
        };
    m_manifest.module_file = module.module_file;
    m_host.emplace(std::move(module));
    ModuleInfo info = m_host->info();
    m_manifest.module_client = info.client;
    m_manifest.module_version = info.version;
    m_manifest.module_release = info.release;
    if (info.item_handling != DB_FILE_PREPARE)
        throw ClientError(ExitCode::server_error, "the module " +
                                                      for_terminal(m_manifest.module_file) +
                                                      " does not hand out files");

    std::vector<std::string> variables = {"NOTESINI=" + m_ini.file,
                                          "TMP_DIR=" + m_temporary->path()};
    if (m_arguments.empty())
        variables.emplace_back("DATABASE=NOTES");
    for (const DatabaseArgument& argument : m_arguments)
        variables.push_back("DATABASE=" + argument.value);
    m_operation_open = true;
    return m_host->init(DB_TYPE_BCK, m_options.level == "copy" ? DB_LEVEL_COPY : DB_LEVEL_FULL,
                        variables);
}

void BackupRun::start_operation() {
    int status = init_operation();
    if (status != DB_NUM_I_OK && m_archiving_in_progress && interrupt_signal() == 0) {
        // What a killed run left open on the server was ended by this failed start. One operation
        // a process: the second start gets a new one.
        print_message("the server had an archiving session open, which was ended: starting again");
        m_host->close({status_failed});
        m_host.reset();
        m_last_log_line.clear();
        status = init_operation();
    }
    if (status == DB_NUM_I_OK)
        return;
    throw_if_interrupted();
    std::string reason = module_reason();
    std::string hint = "look at the server's console; --verbose shows what the module did";
    if (reason.find("libnotes") != std::string::npos ||
        reason.find("Notes C API") != std::string::npos)
        hint = "set Notes_ExecDirectory to the folder of the server's libnotes.so, or NotesProgram "
               "in " +
               for_terminal(m_ini.file);
    throw ClientError(ExitCode::server_error,
                      "cannot start the backup on the server: " + for_terminal(reason), hint);
}

void BackupRun::store_items() {
    m_manifest.level = m_options.level;
    m_manifest.set = new_set_name(*m_store, m_manifest.started, m_options.level);
    m_manifest.whole_system = m_arguments.empty();
    for (const DatabaseArgument& argument : m_arguments)
        m_manifest.arguments.push_back(argument.path);
    std::array<char, 256> host{};
    if (::gethostname(host.data(), host.size() - 1) == 0)
        m_manifest.host = host.data();
    m_manifest.notes_ini = m_ini.file;
    m_manifest.data_directory = m_ini.data_directory;
    m_manifest.client_version = client_version();
    m_buffer.resize(read_block);
    m_progress.emplace(m_scan.databases);
    for (;;) {
        throw_if_interrupted();
        (void)m_host->error(); // what the start reported is no error of an item
        ModuleItem next = m_host->get_item();
        if (next.status == DB_NUM_I_COMPLETE)
            return;
        if (next.status != DB_NUM_I_OK) {
            throw_if_interrupted();
            throw ClientError(ExitCode::server_error,
                              "the module cannot list the next item: " +
                                  for_terminal(module_reason()),
                              "--verbose shows what the module did");
        }
        m_item_pending = true;
        store_item(next.name);
    }
}

void BackupRun::store_item(const std::string& path) {
    auto finish = [this](DB_ITEM_RESULT result) {
        m_item_pending = false;
        return m_host->finish(result);
    };
    // Folders come again for every kind of file in them.
    if (!m_seen.insert(path).second) {
        (void)finish(DB_ITEM_EXCLUDED);
        return;
    }
    struct stat status {};
    ManifestItem item = look_at(path, status);
    bool data_notes_ini = path == m_ini.data_directory + "/notes.ini";
    if (data_notes_ini && !item.has_metadata && path != m_ini.file) {
        // The module names this path always; the file in use is elsewhere.
        (void)finish(DB_ITEM_EXCLUDED);
        store_own_notes_ini();
        return;
    }
    if (item.kind != ItemKind::directory)
        for (std::size_t i = 0; i < m_arguments.size(); ++i)
            if (path == m_arguments[i].path ||
                (!data_notes_ini && is_below(path, m_arguments[i].path)))
                m_yielded[i] = true;
    if (item.kind == ItemKind::database)
        m_progress->next_database();
    m_prepared.clear();
    if (item.reason.empty() && item.kind != ItemKind::directory)
        prepare_and_read(item);
    if (item.reason.empty())
        item.status = ItemStatus::stored;
    bool stored = item.status == ItemStatus::stored;
    if (finish(stored ? DB_ITEM_SUCCESS : DB_ITEM_FAIL) != DB_NUM_I_OK && stored)
        item.warnings.push_back("stored, but the module could not clean up after it: " +
                                module_reason());
    // Some copies the module leaves behind: the next database needs their room.
    if (m_prepared != path && is_below(m_prepared, m_temporary->path()))
        ::unlink(m_prepared.c_str());
    add_item(std::move(item));
    if (data_notes_ini)
        store_own_notes_ini();
}

// The item with the original's metadata; with a reason when it is nothing that can be stored.
ManifestItem BackupRun::look_at(const std::string& path, struct stat& status) {
    ManifestItem item;
    item.path = path;
    item.kind = kind_of(path);
    if (auto log = m_logs.extract(path)) {
        item.log = log.mapped();
        item.kind = ItemKind::log;
    }
    if (::stat(path.c_str(), &status) != 0) {
        item.reason = errno == ENOENT ? "it is gone: it was there when the module listed it"
                                      : "cannot look at it: " + system_error_text(errno);
        return item;
    }
    item.has_metadata = true;
    item.mode = status.st_mode & 07777;
    item.uid = status.st_uid;
    item.gid = status.st_gid;
    item.owner = user_name(status.st_uid);
    item.group = group_name(status.st_gid);
    item.mtime_ns =
        static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec;
    if (S_ISDIR(status.st_mode))
        item.kind = ItemKind::directory;
    else if (!S_ISREG(status.st_mode))
        item.reason = std::string("it is ") + file_type_name(status.st_mode) + ", no file";
    return item;
}

void BackupRun::prepare_and_read(ManifestItem& item) {
    if (item.kind == ItemKind::database) {
        std::size_t relative =
            item.path.size() - std::min(item.path.size(), m_ini.data_directory.size());
        if (m_temporary->path().size() + relative >= module_path_size) {
            item.reason = "the path of its copy below " + m_temporary->path() +
                          " is longer than the module takes; a shorter --tmp-dir helps";
            return;
        }
    }
    ModuleItem prepared = m_host->prepare(item.path);
    auto usable = [&] {
        return (prepared.status == DB_NUM_I_OK || prepared.status == DB_NUM_W_WARNING) &&
               !prepared.name.empty();
    };
    std::string first;
    if (!usable() && interrupt_signal() == 0) {
        // A backup context that a killed run left fails the next start of one and ends with it.
        first = module_reason();
        prepared = m_host->prepare(item.path);
        if (usable())
            item.warnings.push_back("prepared at the second attempt; the first failed: " + first);
    }
    item.prepare_status = prepared.status;
    if (interrupt_signal() != 0) {
        item.reason = "interrupted";
        return;
    }
    if (!usable()) {
        std::string second = module_reason();
        item.reason = "the server could not prepare it: " + second;
        if (!first.empty() && first != second)
            item.reason += " (the first attempt: " + first + ")";
        std::optional<std::uint64_t> room = free_bytes(m_temporary->path());
        struct stat status {};
        if (room && item.kind == ItemKind::database && ::stat(item.path.c_str(), &status) == 0 &&
            *room < static_cast<std::uint64_t>(status.st_size))
            item.reason += " (the temporary directory has only " + human_bytes(*room) +
                           " free; make room there or name another with --tmp-dir)";
        return;
    }
    if (prepared.status == DB_NUM_W_WARNING)
        item.warnings.emplace_back("not transaction-logged: it can be restored as it was at this "
                                   "backup, but not rolled forward");
    m_prepared = prepared.name;
    read_content(item, prepared.name);
}

void BackupRun::read_content(ManifestItem& item, const std::string& file) {
    // O_NONBLOCK: a FIFO that took the file's place must not hang the run.
    FileDescriptor content(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat before {};
    if (!content || ::fstat(content.get(), &before) != 0) {
        item.reason = errno == ENOENT ? "it is gone: it was there when the module listed it"
                                      : "cannot open it: " + system_error_text(errno);
        return;
    }
    if (!S_ISREG(before.st_mode)) {
        item.reason = std::string("it is ") + file_type_name(before.st_mode) + ", no file";
        return;
    }
    ::posix_fadvise(content.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    // One consistent length: what is there now, even if the file grows meanwhile.
    auto expected = static_cast<std::uint64_t>(before.st_size);
    std::unique_ptr<ObjectWriter> object = m_store->create_object();
    std::uint64_t read = 0;
    while (read < expected) {
        m_host->forward_interrupt();
        if (interrupt_signal() != 0) {
            item.reason = "interrupted";
            return;
        }
        std::size_t wanted = std::min<std::uint64_t>(m_buffer.size(), expected - read);
        ssize_t got = read_up_to(content.get(), std::span(m_buffer.data(), wanted));
        if (got < 0) {
            item.reason = "cannot read it: " + system_error_text(static_cast<int>(-got));
            return;
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
        return;
    }
    auto now = static_cast<std::uint64_t>(after.st_size);
    if (now != expected || read != expected) {
        std::string change = "its size changed from " + std::to_string(expected) + " to " +
                             std::to_string(now) + " bytes while it was read";
        // Nobody but us writes to a database's copy: this one is not what was prepared.
        if (item.kind == ItemKind::database) {
            item.reason = change;
            return;
        }
        item.warnings.push_back(change + "; " + std::to_string(read) + " bytes are stored");
    }
    StoredObject stored = object->finish();
    item.object = stored.hash;
    item.size = stored.size;
    item.stored_size = stored.stored_size;
    if (stored.added)
        m_manifest.new_bytes += stored.stored_size;
}

// A notes.ini outside the data directory is part of the server too; the module does not know it.
void BackupRun::store_own_notes_ini() {
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
    struct stat status {};
    ManifestItem item = look_at(m_ini.file, status);
    if (item.reason.empty())
        read_content(item, m_ini.file);
    if (item.reason.empty())
        item.status = ItemStatus::stored;
    add_item(std::move(item));
}

void BackupRun::add_item(ManifestItem item) {
    if (item.status == ItemStatus::failed && interrupt_signal() == 0)
        print_message("failed: " + for_terminal(item.path) + ": " + for_terminal(item.reason));
    if (m_options.verbose)
        for (const std::string& warning : item.warnings)
            print_message("warning: " + for_terminal(item.path) + ": " + for_terminal(warning));
    m_manifest.items.push_back(std::move(item));
}

// What the module passed over without a word must not look saved.
void BackupRun::add_unreached() {
    auto add = [this](const std::string& path, const std::string& reason, ItemKind kind) {
        if (!m_seen.insert(path).second)
            return;
        ManifestItem item;
        item.path = path;
        item.kind = kind;
        item.reason = reason;
        add_item(std::move(item));
    };
    for (const auto& [path, reason] : m_scan.unreachable)
        add(path, reason, kind_of(path));
    for (std::size_t i = 0; i < m_arguments.size(); ++i)
        if (!m_yielded[i]) {
            // The folder itself may have been handed out, just nothing in it.
            m_seen.erase(m_arguments[i].path);
            add(m_arguments[i].path,
                "DATABASE '" + m_arguments[i].given +
                    "' selected nothing: the module saves databases and the files of a server "
                    "(.nsf, .ntf, .box, .ncf, .id, .dic, .cfg, .njf, .dsk, .nlo)",
                m_arguments[i].directory ? ItemKind::directory : kind_of(m_arguments[i].path));
        }
}

void BackupRun::commit() {
    m_progress.reset();
    m_manifest.complete = totals(m_manifest).failed_items == 0;
    m_store->flush();
    m_manifest.ended = std::time(nullptr);
    m_store->write_manifest(m_manifest.set, serialize(m_manifest));
    m_store->keep_added();

    std::string close_error;
    try {
        m_operation_open = false;
        int status = m_host->close({m_manifest.complete ? status_ok : status_failed});
        if (status != DB_NUM_I_OK)
            close_error = module_reason();
    } catch (const ClientError& failure) {
        close_error = failure.what();
    }
    if (close_error.empty())
        return;
    m_manifest.close_error = close_error;
    m_store->write_manifest(m_manifest.set, serialize(m_manifest));
    throw ClientError(
        ExitCode::server_error,
        "the set " + m_manifest.set +
            " was stored, but the server did not close the backup: " + for_terminal(close_error),
        "the server keeps its logs, and the next backup stores them again");
}

// Leaves the server as after a failed run and the store as before it. The first failure is what
// gets reported: those of the clean-up are not.
void BackupRun::give_up() noexcept {
    try {
        m_progress.reset();
        if (m_host && m_host->running()) {
            if (m_item_pending)
                (void)m_host->finish(DB_ITEM_FAIL);
            if (m_operation_open)
                (void)m_host->close({status_failed});
        }
    } catch (...) {
        // The child is gone or unusable; its end is waited for below.
    }
    m_host.reset();
    m_store->discard_added();
    m_temporary.reset();
}

int BackupRun::report() const {
    ManifestTotals sum = totals(m_manifest);
    ExitCode code = m_manifest.complete ? ExitCode::complete : ExitCode::items_failed;
    if (m_options.json) {
        nlohmann::json failed = nlohmann::json::array();
        nlohmann::json warnings = nlohmann::json::array();
        for (const ManifestItem& item : m_manifest.items) {
            std::string path = printable_utf8(item.path);
            if (item.status == ItemStatus::failed)
                failed.push_back({{"path", path}, {"reason", printable_utf8(item.reason)}});
            for (const std::string& warning : item.warnings)
                warnings.push_back({{"path", path}, {"warning", printable_utf8(warning)}});
        }
        print_json({{"command", "backup"},
                    {"exit_code", static_cast<int>(code)},
                    {"status", status_text(m_manifest)},
                    {"set", m_manifest.set},
                    {"level", m_manifest.level},
                    {"store", printable_utf8(absolute_path(m_options.store))},
                    {"started", utc_time(m_manifest.started)},
                    {"ended", utc_time(m_manifest.ended)},
                    {"databases", sum.databases},
                    {"items", sum.stored_items},
                    {"bytes", sum.bytes},
                    {"new_bytes", m_manifest.new_bytes},
                    {"failed", failed},
                    {"warnings", warnings}});
        return static_cast<int>(code);
    }
    std::string text = "set " + m_manifest.set + ": " + status_text(m_manifest) + "\n  " +
                       std::to_string(sum.databases) + " databases, " +
                       std::to_string(sum.stored_items) + " items, " + human_bytes(sum.bytes) +
                       ", " + human_bytes(m_manifest.new_bytes) + " new in the store, " +
                       human_duration(m_manifest.ended - m_manifest.started) + "\n";
    if (sum.warnings > 0)
        text += "  " + std::to_string(sum.warnings) + " warnings: `qrtln show " + m_manifest.set +
                "` lists them\n";
    if (sum.failed_items > 0)
        text += "  " + std::to_string(sum.failed_items) +
                " failed: the server was told that this backup is not complete\n";
    print_output(text);
    return static_cast<int>(code);
}

std::string BackupRun::user_name(uid_t uid) {
    auto [entry, added] = m_users.try_emplace(uid);
    if (added)
        if (const passwd* user = ::getpwuid(uid))
            entry->second = user->pw_name;
    return entry->second;
}

std::string BackupRun::group_name(gid_t gid) {
    auto [entry, added] = m_groups.try_emplace(gid);
    if (added)
        if (const group* found = ::getgrgid(gid))
            entry->second = found->gr_name;
    return entry->second;
}

} // namespace

int run_backup(const BackupOptions& options) {
    install_interrupt_handlers();
    return BackupRun(options).run();
}

} // namespace qrtln
