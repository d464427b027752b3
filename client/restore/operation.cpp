#include "client/restore/operation.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/module/control_variables.h"
#include "client/module/host.h"
#include "client/module/neutral_path.h"
#include "client/module/temporary_directory.h"
#include "client/module/told.h"
#include "client/restore/created_folders.h"
#include "client/restore/kept_beside.h"
#include "client/restore/object_content.h"
#include "client/restore/safe_file.h"
#include "client/restore/waiting_copies.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/sets/server_runtime.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

// A folder of the server's that nothing is restored to.
constexpr const char* no_folder = "qrtln-nothing";

// The folder part of a relative path.
std::string relative_folder(const std::string& relative) {
    std::size_t slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

bool does_work(const PlannedItem& planned) {
    return planned.action != RestoreAction::leave_out && planned.action != RestoreAction::refuse;
}

// Those that the client found, and folders with paths that the module does not take, are none of
// its items.
bool is_clients_own(const PlannedItem& planned) {
    ItemKind kind = planned.item.kind;
    return kind == ItemKind::other || kind == ItemKind::link ||
           (kind == ItemKind::directory && planned.announced.size() >= module_path_size);
}

std::string joined(const std::string& root, const std::string& relative) {
    std::string path = root;
    path += '/';
    path += relative;
    return path;
}

class RestoreOperation {
  public:
    RestoreOperation(const OperationContext& context, const RestorePlan& plan, OwedDatabases* owed)
        : m_context(context), m_plan(plan), m_owed(owed), m_to(plan.to, plan.data_directory) {}
    RestoreResult run();

  private:
    void start();
    // Where databases are placed: absolute, without a trailing "/".
    const std::string& temporary_folder() const {
        return m_temporary ? m_temporary->path() : m_plan.pending_folder;
    }
    void create_relocation_folder();
    void restore_item(const PlannedItem& planned);
    std::optional<std::string> announce(const PlannedItem& planned);
    std::string give_to_module(int fd) const;
    bool write_content(const PlannedItem& planned, SafeFile& file, std::string& problem);
    void create_folder(const PlannedItem& planned);
    void write_item(const PlannedItem& planned, const std::string& path);
    bool take_waiting(const PlannedItem& planned, int folder, const std::string& name);
    void drop_waiting(const PlannedItem& planned);
    void write_link(const PlannedItem& planned);
    std::string check_live_target(const PlannedItem& planned);
    void owe(const PlannedItem& planned);
    void owe_all_when_logs_come_back();
    bool keep_replaced(const PlannedItem& planned, const std::string& path);
    std::string announce_nothing(const PlannedItem& planned);
    bool take_offline(const PlannedItem& planned, std::string& problem);
    void bring_online(const PlannedItem& planned);
    void note_kept(const PlannedItem& planned);
    void forget_kept(const PlannedItem& planned);
    void tell_refusal(const PlannedItem& planned, const std::string& reason);
    void finish_written(const PlannedItem& planned, const std::string& path);
    void finish_activation(const PlannedItem& planned, const std::string& path);
    void give_metadata_back(const PlannedItem& planned);
    void give_folder_metadata_back();
    void fail(const PlannedItem& planned, const std::string& told);
    void close();
    void settle_temporary_folder(bool ended_early);

    const OperationContext& m_context;
    const RestorePlan& m_plan;
    OwedDatabases* m_owed;
    // The session, whose child uses both, goes first.
    NeutralPath m_to;
    std::optional<TemporaryDirectory> m_temporary;
    std::optional<WaitingCopies> m_waiting; // of earlier runs
    std::optional<ModuleSession> m_session;
    std::optional<Progress> m_progress;
    RestoreResult m_result;
    CreatedFolders m_created;
    // Told since the item was announced.
    std::optional<ServerStatus> m_status; // the server's last failure
    bool m_not_taken = false;             // the live database was not taken offline
    bool m_taken = false;                 // it was
    std::string m_kept;                   // what is kept of the file that the item replaces
};

RestoreResult RestoreOperation::run() {
    for (const PlannedItem& planned : m_plan.items)
        if (planned.action == RestoreAction::refuse)
            fail(planned, planned.reason);
    if (std::none_of(m_plan.items.begin(), m_plan.items.end(), does_work))
        return std::move(m_result);
    if (m_plan.to.empty())
        if (std::string told = give_empty_data_directory(m_plan.data_directory, m_plan.folders);
            !told.empty())
            m_result.warnings.push_back(told);
    try {
        if (m_plan.pending_folder.empty())
            m_temporary.emplace(absolute_path(m_context.tmp_dir), m_plan.data_directory);
        if (m_temporary && m_plan.activate)
            m_waiting.emplace(absolute_path(m_context.tmp_dir), m_plan.data_directory);
        start();
        create_relocation_folder();
        owe_all_when_logs_come_back();
        m_progress.emplace(static_cast<std::uint64_t>(
            std::count_if(m_plan.items.begin(), m_plan.items.end(), [](const PlannedItem& planned) {
                return does_work(planned) && planned.item.kind == ItemKind::database;
            })));
        for (const PlannedItem& planned : m_plan.items) {
            throw_if_interrupted();
            if (does_work(planned))
                restore_item(planned);
        }
        throw_if_interrupted();
        give_folder_metadata_back();
        close();
    } catch (...) {
        m_progress.reset();
        if (!m_kept.empty())
            print_message("what was about to be replaced is kept: " + for_terminal(m_kept));
        if (m_session)
            m_session->abandon();
        m_session.reset();
        settle_temporary_folder(true);
        throw;
    }
    m_progress.reset();
    m_session.reset();
    settle_temporary_folder(false);
    m_result.warnings.insert(m_result.warnings.end(), m_created.warnings().begin(),
                             m_created.warnings().end());
    return std::move(m_result);
}

void RestoreOperation::start() {
    m_session.emplace(
        m_context,
        [this](const std::string& line) {
            m_not_taken = m_not_taken || says_not_taken_offline(line);
        },
        [this](const std::string& line) {
            if (std::optional<ServerStatus> status = parse_server_status(line); status)
                m_status = m_not_taken ? m_status : status;
            m_taken = m_taken || says_taken_offline(line);
        });
    std::vector<std::string> variables = {tmp_dir_variable(temporary_folder()),
                                          whole_server_variable};
    if (m_plan.activate)
        variables.emplace_back(activate_variable);
    if (!m_plan.to.empty())
        variables.push_back(relocation_variable(m_to.path(), m_plan.plain));
    if (m_session->init(DB_TYPE_RST, m_plan.extents_only ? DB_LEVEL_INCR : DB_LEVEL_FULL,
                        std::move(variables)) != DB_NUM_I_OK)
        m_session->report_failed_start("restore", m_session->reason());
}

void RestoreOperation::create_relocation_folder() {
    bool made = !m_plan.to.empty() && ::mkdir(m_plan.to.c_str(), 0700) == 0;
    if (made && m_plan.databases_wait) // the module works in it
        (void)give_folder_to_server_user(m_plan.to, m_plan.data_directory);
    if (!m_plan.to.empty() && !made && errno != EEXIST)
        throw ClientError(ExitCode::failed, "cannot create the folder " + for_terminal(m_plan.to) +
                                                ": " + system_error_text(errno));
}

void RestoreOperation::fail(const PlannedItem& planned, const std::string& told) {
    std::string reason = m_to.in_text(told);
    print_message("failed: " + for_terminal(planned.item.path) + ": " + for_terminal(reason));
    m_result.failed.push_back({planned.item.path, reason});
}

// The path to write to, or nothing with the failure noted.
std::optional<std::string> RestoreOperation::announce(const PlannedItem& planned) {
    m_session->forget_reasons();
    m_status.reset();
    m_not_taken = m_taken = false;
    bool folder = planned.item.kind == ItemKind::directory;
    const std::string announced = m_to.for_module(planned.announced);
    std::string directory = folder ? announced : folder_of(announced);
    ModuleItem answer = m_session->host().set_item(DB_ITEM_TYPE_DIRECTORY, directory);
    std::string path = answer.name;
    if (answer.status == DB_NUM_I_OK && !folder) {
        answer = m_session->host().set_item(DB_ITEM_TYPE_FILE, announced);
        path = answer.name;
        if (answer.status == DB_NUM_I_OK)
            m_session->item_begun();
    }
    if (answer.status != DB_NUM_I_OK) {
        fail(planned, "the module refused it: " + m_session->reason());
        return std::nullopt;
    }
    bool placed =
        planned.action == RestoreAction::activate || planned.action == RestoreAction::place;
    const std::string& temporary = temporary_folder();
    bool allowed = placed ? path != temporary && is_below(path, temporary) : path == announced;
    if (!allowed || !path_problem(path).empty()) {
        m_session->finish_failed();
        fail(planned, "the module wants it written to " + printable_utf8(path) +
                          ", which is no place for it");
        return std::nullopt;
    }
    return placed ? path : planned.announced; // never written through a link
}

void RestoreOperation::restore_item(const PlannedItem& planned) {
    if (planned.item.kind == ItemKind::database)
        m_progress->next_database();
    if (is_clients_own(planned)) {
        planned.item.kind == ItemKind::link        ? write_link(planned)
        : planned.item.kind == ItemKind::directory ? create_folder(planned)
                                                   : write_item(planned, planned.announced);
        return;
    }
    if (std::optional<std::string> path = announce(planned)) {
        if (planned.action == RestoreAction::create_folder)
            create_folder(planned);
        else
            write_item(planned, *path);
    }
    m_session->finish_failed();
}

void RestoreOperation::create_folder(const PlannedItem& planned) {
    std::string problem;
    SafeFolder root(planned.root);
    if (!root.open_folder(path_below(planned.target, planned.root), problem,
                          m_created.callback(planned.root)))
        fail(planned, problem);
    else
        m_result.restored.push_back(planned.target);
}

std::string RestoreOperation::give_to_module(int fd) const {
    int error = give_to_server_user(fd, m_plan.data_directory);
    return error == 0 ? "" : "cannot give it to the server's user: " + system_error_text(error);
}

// Whether the content is in the file, whole.
bool RestoreOperation::write_content(const PlannedItem& planned, SafeFile& file,
                                     std::string& problem) {
    WrittenContent written =
        qrtln::write_content(m_context.store, planned.item, file, [&](std::uint64_t bytes) {
            m_session->host().forward_interrupt();
            throw_if_interrupted();
            m_progress->add_bytes(bytes);
        });
    problem = written.problem;
    if (!written.damage.empty()) {
        print_message("damaged: " + for_terminal(planned.item.path) + ": " +
                      for_terminal(written.damage));
        m_result.damaged.push_back({planned.item.path, written.damage});
    }
    m_result.bytes += written.bytes;
    return written.whole();
}

void RestoreOperation::write_item(const PlannedItem& planned, const std::string& path) {
    bool placed = planned.action != RestoreAction::write;
    const std::string& root_path = placed ? temporary_folder() : planned.root;
    SafeFolder root(root_path);
    std::string relative = path_below(path, root_path);
    std::string problem;
    FolderCreated created =
        placed ? FolderCreated([this](int fd, const std::string&) { (void)give_to_module(fd); })
               : m_created.callback(planned.root);
    FileDescriptor folder = root.open_folder(relative_folder(relative), problem, created);
    if (!folder) {
        fail(planned, problem);
        return;
    }
    bool taken = take_waiting(planned, folder.get(), name_of(relative));
    SafeFile file(std::move(folder), name_of(relative));
    // A copy for the server is its user's until it is in place: the module reads and removes it.
    bool activate = planned.action == RestoreAction::activate;
    bool for_module =
        activate || (m_plan.databases_wait && planned.item.kind == ItemKind::database);
    if (!taken)
        problem = file.create();
    if (!taken && problem.empty() && for_module)
        problem = give_to_module(file.descriptor());
    if (!taken && problem.empty() && !write_content(planned, file, problem)) {
        if (!problem.empty())
            fail(planned, problem);
        return;
    }
    bool replaces = placed ? !m_plan.pending_folder.empty() : planned.replaces;
    if (problem.empty() && planned.action == RestoreAction::write && m_plan.to.empty())
        owe(planned);
    m_kept.clear();
    if (problem.empty() && planned.action == RestoreAction::write && planned.keeps_replaced) {
        KeptFile kept =
            keep_beside(planned.root, planned.target, [] { return interrupt_signal() != 0; });
        problem = kept.problem.empty() ? "" : "it cannot be kept: " + kept.problem;
        m_kept = kept.path;
    }
    if (problem.empty() && !taken)
        problem = file.commit(for_module ? nullptr : &planned.item, replaces);
    for (const std::string& warning : file.warnings())
        m_result.warnings.push_back(std::string(planned.target).append(": ").append(warning));
    if (problem.empty() && activate) {
        problem = check_live_target(planned);
        if (!problem.empty())
            ::unlink(path.c_str()); // in this run's own folder; at its end it goes anyway
    }
    if (!problem.empty()) {
        forget_kept(planned);
        fail(planned, problem);
        return;
    }
    if (activate)
        owe(planned);
    if (activate && m_plan.keep_replaced && !keep_replaced(planned, path))
        return;
    activate ? finish_activation(planned, path) : finish_written(planned, path);
}

// What an earlier run left of the same content need not be read from the store again.
bool RestoreOperation::take_waiting(const PlannedItem& planned, int folder,
                                    const std::string& name) {
    std::string from;
    if (m_waiting && planned.action == RestoreAction::activate)
        from = m_waiting->take(planned.item, folder, name, [this] {
            m_session->host().forward_interrupt();
            throw_if_interrupted();
        });
    if (!from.empty())
        print_message("the copy of " + for_terminal(planned.item.path) +
                      " that waited is whole and is used: " + for_terminal(from));
    return !from.empty();
}

// One copy waits for a database at most: the newest.
void RestoreOperation::drop_waiting(const PlannedItem& planned) {
    if (!m_waiting)
        return;
    for (std::string& warning :
         m_waiting->drop(planned.item.path, [this] { m_session->host().forward_interrupt(); }))
        m_result.warnings.push_back(std::move(warning));
}

// No backup that selects what changed would find what is put in place now: its time and identity
// are those of long ago.
void RestoreOperation::owe(const PlannedItem& planned) {
    if (m_owed == nullptr || planned.item.kind != ItemKind::database)
        return;
    try {
        m_owed->add(m_plan.data_directory, planned.item.path, true);
    } catch (const ClientError& failure) {
        m_owed = nullptr;
        m_result.warnings.push_back(not_owed_text(failure.what()));
    }
}

// What was committed between the set and the loss of the logs is in none: no log leads over it.
void RestoreOperation::owe_all_when_logs_come_back() {
    bool logs = std::any_of(m_plan.items.begin(), m_plan.items.end(), [](const auto& planned) {
        return planned.item.log && planned.action == RestoreAction::write;
    });
    if (!logs || m_owed == nullptr)
        return;
    try {
        m_owed->add_restored(m_plan.data_directory,
                             saved_databases(m_context.store, m_context.ini.sets));
    } catch (const ClientError& failure) {
        m_owed = nullptr;
        m_result.warnings.push_back(not_owed_text(failure.what()));
    }
}

// Makes the folder of the live database, and refuses what the module would write through.
std::string RestoreOperation::check_live_target(const PlannedItem& planned) {
    SafeFolder root(planned.root);
    std::string relative = path_below(planned.target, planned.root);
    std::string problem;
    if (!root.open_folder(relative_folder(relative), problem, m_created.callback(planned.root)))
        return problem;
    std::optional<struct stat> live = root.look_at(relative, problem);
    if (problem.empty() && live && !S_ISREG(live->st_mode))
        problem = "what is in its place is no file";
    // The plan's reckoning may be hours old, and a copy that fails leaves half a database.
    std::optional<std::uint64_t> room = free_bytes(folder_of(planned.target));
    std::uint64_t size = planned.item.size;
    if (live && m_plan.keep_replaced && room)
        room = *room - std::min(*room, static_cast<std::uint64_t>(live->st_size));
    if (problem.empty() && room && size > *room && size - *room > occupied_bytes(live))
        problem = "there is no room for its " + human_bytes(size) + ": " + human_bytes(*room) +
                  " are free on its file system; the live database is as it was";
    return problem;
}

// Announces a file that nothing is written to, of the live database's name and folder. Returns
// where the module expects it; empty when it does not take it.
std::string RestoreOperation::announce_nothing(const PlannedItem& planned) {
    m_session->forget_reasons();
    m_status.reset();
    m_not_taken = m_taken = false;
    ModuleItem answer =
        m_session->host().set_item(DB_ITEM_TYPE_DIRECTORY, folder_of(planned.target));
    if (answer.status == DB_NUM_I_OK)
        answer = m_session->host().set_item(
            DB_ITEM_TYPE_FILE,
            joined(joined(m_plan.data_directory, no_folder), name_of(planned.target)));
    if (answer.status != DB_NUM_I_OK)
        return {};
    m_session->item_begun();
    bool good = is_below(answer.name, temporary_folder()) && path_problem(answer.name).empty() &&
                name_of(answer.name) == name_of(planned.target) && !exists(answer.name);
    if (!good)
        m_session->finish_failed();
    return good ? answer.name : std::string();
}

// An activation takes the live database from its users first. One for which there is no copy ends
// there: the database is as it was, and nobody writes to it.
bool RestoreOperation::take_offline(const PlannedItem& planned, std::string& problem) {
    if (announce_nothing(planned).empty()) {
        problem = "the module refused to take it offline: " + m_session->reason();
        return false;
    }
    (void)m_session->finish(DB_ITEM_SUCCESS);
    if (!m_taken)
        problem = m_session->reason();
    return m_taken;
}

// An activation of the live database itself copies nothing and deletes nothing.
void RestoreOperation::bring_online(const PlannedItem& planned) {
    std::string place = announce_nothing(planned);
    bool online = !place.empty() && ::symlink(planned.target.c_str(), place.c_str()) == 0 &&
                  m_session->finish(DB_ITEM_SUCCESS) == DB_NUM_I_OK;
    m_session->finish_failed();
    if (!place.empty())
        ::unlink(place.c_str()); // in this run's own folder
    if (!online)
        m_result.warnings.push_back(planned.target +
                                    ": is as it was, but offline: bring it online at the server");
}

void RestoreOperation::note_kept(const PlannedItem& planned) {
    if (!m_kept.empty())
        m_result.kept_replaced.push_back({planned.target, m_kept});
    m_kept.clear();
}

void RestoreOperation::forget_kept(const PlannedItem& planned) {
    if (!m_kept.empty() && ::unlink(m_kept.c_str()) != 0)
        m_result.warnings.push_back(planned.target +
                                    ": was not replaced, but what was kept of it " +
                                    "could not be removed: " + m_kept);
    m_kept.clear();
}

// Returns whether the activation may go on: the live database is kept, if there is one, and nobody
// writes to it any more.
bool RestoreOperation::keep_replaced(const PlannedItem& planned, const std::string& path) {
    if (!exists(planned.target))
        return true;
    m_session->finish_failed(); // the copy stays where it is
    // Should the child die, the live database may be offline.
    m_result.waiting.push_back(
        {planned.item.path, path, "its activation did not end", false, false, planned.item.object});
    std::string problem;
    if (!take_offline(planned, problem)) {
        m_not_taken = true; // there is nothing that it could have been replaced by
        tell_refusal(planned, problem);
        return false;
    }
    KeptFile kept = keep_beside(planned.root, planned.target, [this] {
        m_session->host().forward_interrupt();
        return interrupt_signal() != 0;
    });
    m_kept = kept.path;
    m_result.waiting.pop_back();
    bool goes_on = false;
    if (!kept.problem.empty()) {
        fail(planned, "what is there cannot be kept (" + kept.problem + "), and was not replaced");
    } else if (std::optional<std::string> again = announce(planned)) {
        goes_on = *again == path;
        if (!goes_on)
            fail(planned, "the module wants it written to another place now");
    }
    if (goes_on)
        return true;
    m_session->finish_failed();
    forget_kept(planned);
    bring_online(planned);
    ::unlink(path.c_str());
    return false;
}

// The link alone: what it names is not looked at.
void RestoreOperation::write_link(const PlannedItem& planned) {
    SafeFolder root(planned.root);
    std::string relative = path_below(planned.target, planned.root);
    std::string problem;
    FileDescriptor folder =
        root.open_folder(relative_folder(relative), problem, m_created.callback(planned.root));
    if (folder) {
        SafeFile link(std::move(folder), name_of(relative));
        problem = link.create_link(planned.item.target);
        if (problem.empty())
            problem = link.commit(&planned.item, planned.replaces);
    }
    if (problem.empty())
        m_result.restored.push_back(planned.target);
    else
        fail(planned, problem);
}

void RestoreOperation::finish_written(const PlannedItem& planned, const std::string& path) {
    note_kept(planned);
    if (is_clients_own(planned)) {
        m_result.restored.push_back(planned.target);
        return;
    }
    if (m_session->finish(DB_ITEM_SUCCESS) != DB_NUM_I_OK) {
        fail(planned, "it was written, but the module reports: " + m_session->reason());
        return;
    }
    if (planned.action == RestoreAction::place)
        m_result.waiting.push_back({planned.item.path, path, {}, true, false, {}});
    else
        m_result.restored.push_back(planned.target);
}

void RestoreOperation::finish_activation(const PlannedItem& planned, const std::string& path) {
    // Should the child die, this may be the only whole copy on the server.
    m_result.waiting.push_back(
        {planned.item.path, path, "its activation did not end", false, false, planned.item.object});
    if (m_session->finish(DB_ITEM_SUCCESS) == DB_NUM_I_OK) {
        m_result.waiting.pop_back();
        m_result.restored.push_back(planned.target);
        note_kept(planned);
        give_metadata_back(planned);
        drop_waiting(planned);
        return;
    }
    std::string reason = m_session->reason();
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        m_result.waiting.pop_back();
        note_kept(planned);
        fail(planned, "it is in place, but the server does not bring it online: " + reason);
        drop_waiting(planned);
        return;
    }
    bool untouched = m_not_taken;
    tell_refusal(planned, reason);
    if (untouched && !m_kept.empty()) { // it was offline already
        forget_kept(planned);
        bring_online(planned);
    }
    note_kept(planned);
}

// Why the live database was not replaced, or not wholly.
void RestoreOperation::tell_refusal(const PlannedItem& planned, const std::string& reason) {
    std::string users = planned.used_by.empty() ? "" : " (by process " + planned.used_by + ")";
    WaitingCopy& waiting = m_result.waiting.back();
    const ServerStatus refused = m_status.value_or(ServerStatus{});
    waiting.untouched = m_not_taken;
    waiting.in_use = m_not_taken && refused.number == status_in_use;
    if (waiting.in_use)
        waiting.reason =
            "the server does not let go of it" + users + ", so it was not touched: " + reason;
    else if (waiting.untouched)
        waiting.reason = "the server does not take it offline, so it was not touched: " + reason +
                         ": " + advice_on(refused);
    else
        waiting.reason = "it could not be put in place, and the live database may be half of it, "
                         "and offline: " +
                         reason;
    print_message((waiting.in_use ? "in use: " : "failed: ") + for_terminal(planned.item.path) +
                  ": " + for_terminal(waiting.reason));
    drop_waiting(planned);
}

void RestoreOperation::give_metadata_back(const PlannedItem& planned) {
    std::string problem;
    FileDescriptor file =
        SafeFolder(planned.root).open_file(path_below(planned.target, planned.root), problem);
    if (file)
        problem = apply_metadata(file.get(), planned.item);
    if (!problem.empty())
        m_result.warnings.push_back(planned.target + ": " + problem);
}

void RestoreOperation::give_folder_metadata_back() {
    m_created.give_metadata_back([this](const std::string& root, const std::string& relative) {
        std::string path = joined(root, relative);
        if (!m_plan.to.empty() && is_below(path, m_plan.to))
            path = path.substr(m_plan.to.size());
        auto original = m_plan.folders.find(path);
        return original == m_plan.folders.end() ? nullptr : &original->second;
    });
}

void RestoreOperation::close() {
    bool good = m_result.failed.empty() && m_result.damaged.empty();
    if (m_session->close(good) != DB_NUM_I_OK)
        m_result.warnings.push_back("the server did not close the restore: " + m_session->reason());
}

// Keeps the folder when restored copies wait in it.
void RestoreOperation::settle_temporary_folder(bool ended_early) {
    if (!m_temporary)
        return;
    if (ended_early) // what was only placed comes again with the next run
        std::erase_if(m_result.waiting,
                      [](const WaitingCopy& waiting) { return waiting.reason.empty(); });
    if (m_result.waiting.empty()) {
        if (int error = m_temporary->remove(); error != 0)
            m_result.warnings.push_back("the temporary folder could not be removed: " +
                                        system_error_text(error));
        return;
    }
    std::string before = m_temporary->path();
    std::vector<NotedCopy> noted;
    for (const WaitingCopy& waiting : m_result.waiting)
        if (!waiting.reason.empty())
            noted.push_back({waiting.path, path_below(waiting.copy, before), waiting.object});
    m_result.noted =
        !noted.empty() && note_waiting_copies(before, m_plan.data_directory, noted) == 0;
    m_result.kept_folder = m_temporary->keep();
    for (WaitingCopy& waiting : m_result.waiting)
        waiting.copy = m_result.kept_folder + waiting.copy.substr(before.size());
    if (ended_early)
        for (const WaitingCopy& waiting : m_result.waiting)
            print_message("the restored copy of " + for_terminal(waiting.path) + " is kept: " +
                          for_terminal(waiting.copy) + " (" + for_terminal(waiting.reason) + ")");
}

} // namespace

nlohmann::json failures_json(const std::vector<FailedRestore>& list) {
    nlohmann::json array = nlohmann::json::array();
    for (const FailedRestore& failed : list)
        array.push_back(
            {{"path", printable_utf8(failed.path)}, {"reason", printable_utf8(failed.reason)}});
    return array;
}

RestoreResult run_restore_operation(const OperationContext& context, const RestorePlan& plan,
                                    OwedDatabases* owed) {
    return RestoreOperation(context, plan, owed).run();
}

std::string not_owed_text(const std::string& reason) {
    return "what is put in place cannot be written down for the next backup (" + reason +
           "): take a full backup afterwards (`qrtln backup --level full`), others may not save it";
}

std::unique_ptr<Store> open_store_for_notes(const std::string& directory, const std::string& server,
                                            std::string& problem) {
    try {
        std::unique_ptr<Store> store = open_directory_store(directory, StoreAccess::change);
        use_runtime_of(*store, server);
        return store;
    } catch (const ClientError& failure) {
        if (failure.exit_code() == static_cast<int>(ExitCode::locked))
            throw;
        problem = failure.what();
    }
    return open_directory_store(directory, StoreAccess::read);
}

namespace {

bool can_only_be_read(const std::string& directory) {
    try {
        (void)open_directory_store(directory, StoreAccess::read);
    } catch (const ClientError&) {
        return false;
    }
    auto refused = [](const std::string& path) {
        return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 &&
               (errno == EROFS || errno == EACCES || errno == EPERM);
    };
    return refused(directory) || refused(directory + "/lock");
}

} // namespace

std::unique_ptr<Store> open_store_or_state(const StateRequest& request,
                                           const std::string& way_out) {
    if (!request.directory.empty())
        return open_store_with_state(request);
    if (!request.writes)
        return open_directory_store(request.store, StoreAccess::read);
    try {
        return open_directory_store(request.store, StoreAccess::change);
    } catch (const ClientError& failure) {
        if (!can_only_be_read(request.store))
            throw;
        throw ClientError(failure.exit_code(), failure.what(),
                          failure.hint() + (failure.hint().empty() ? "" : "; or ") + way_out);
    }
}

} // namespace qrtln
