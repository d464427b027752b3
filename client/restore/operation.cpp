#include "client/restore/operation.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/restore/activation.h"
#include "client/restore/kept_beside.h"
#include "client/restore/object_content.h"
#include "client/restore/restore_session.h"
#include "client/restore/run.h"
#include "client/restore/safe_file.h"
#include "client/restore/waiting_copies.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

// Those that the client found, and folders with paths that the module does not take, are none of
// its items.
bool is_clients_own(const PlannedItem& planned) {
    ItemKind kind = planned.item.kind;
    return kind == ItemKind::other || kind == ItemKind::link ||
           (kind == ItemKind::directory && planned.announced.size() >= module_path_size);
}

class RestoreOperation {
  public:
    RestoreOperation(const OperationContext& context, const RestorePlan& plan, OwedDatabases* owed)
        : m_context(context), m_plan(plan), m_debts(context, plan.data_directory, owed),
          m_run(context, plan) {}
    RestoreResult run();

  private:
    void restore_items();
    void end_early();
    void create_relocation_folder();
    void owe_all_when_logs_come_back();
    void restore_item(const PlannedItem& planned);
    void create_folder(const PlannedItem& planned);
    void write_link(const PlannedItem& planned);
    void write_item(const PlannedItem& planned, const std::string& path);
    FileDescriptor open_folder(const PlannedItem& planned, const std::string& path,
                               std::string& problem);
    bool fill(const PlannedItem& planned, SafeFile& file, std::string& problem);
    bool write_content(const PlannedItem& planned, SafeFile& file, std::string& problem);
    std::string put_under_its_name(const PlannedItem& planned, SafeFile& file, bool there);
    bool is_for_module(const PlannedItem& planned) const;
    std::string give_to_module(int fd) const;
    void owe(const PlannedItem& planned);
    void finish_written(const PlannedItem& planned, const std::string& path);
    void give_folder_metadata_back();
    void settle_temporary_folder(bool ended_early);

    const OperationContext& m_context;
    const RestorePlan& m_plan;
    RestoreDebts m_debts;
    RestoreRun m_run;
    std::optional<WaitingCopies> m_waiting; // of earlier runs
    // Goes before what its child uses.
    std::optional<RestoreSession> m_session;
    std::optional<Activation> m_activation;
    std::optional<Progress> m_progress;
};

RestoreResult RestoreOperation::run() {
    for (const PlannedItem& planned : m_plan.items)
        if (planned.action == RestoreAction::refuse)
            m_run.fail(planned, planned.reason);
    if (std::none_of(m_plan.items.begin(), m_plan.items.end(),
                     [](const PlannedItem& planned) { return planned.does_work(); }))
        return std::move(m_run.result);
    if (m_plan.to.empty())
        if (std::string told = give_empty_data_directory(m_plan.data_directory, m_plan.folders);
            !told.empty())
            m_run.warn(told);
    try {
        restore_items();
    } catch (...) {
        end_early();
        throw;
    }
    m_progress.reset();
    m_session.reset();
    settle_temporary_folder(false);
    for (const std::string& warning : m_run.created.warnings())
        m_run.warn(warning);
    return std::move(m_run.result);
}

void RestoreOperation::restore_items() {
    if (m_plan.pending_folder.empty())
        m_run.temporary.emplace(absolute_path(m_context.tmp_dir), m_plan.data_directory);
    if (m_run.temporary && m_plan.activate)
        m_waiting.emplace(absolute_path(m_context.tmp_dir), m_plan.data_directory);
    m_session.emplace(m_run);
    m_activation.emplace(m_run, *m_session, m_waiting ? &*m_waiting : nullptr);
    m_session->start();
    create_relocation_folder();
    owe_all_when_logs_come_back();
    m_progress.emplace(static_cast<std::uint64_t>(
        std::count_if(m_plan.items.begin(), m_plan.items.end(), [](const PlannedItem& planned) {
            return planned.does_work() && planned.item.kind == ItemKind::database;
        })));
    for (const PlannedItem& planned : m_plan.items) {
        throw_if_interrupted();
        if (planned.does_work())
            restore_item(planned);
    }
    throw_if_interrupted();
    give_folder_metadata_back();
    bool good = m_run.result.failed.empty() && m_run.result.damaged.empty();
    if (!m_session->close(good))
        m_run.warn("the server did not close the restore: " + m_session->reason());
}

// Something went on no longer.
void RestoreOperation::end_early() {
    m_progress.reset();
    if (!m_run.kept.empty())
        print_message("what was about to be replaced is kept: " + for_terminal(m_run.kept));
    if (m_session)
        m_session->abandon();
    m_session.reset();
    settle_temporary_folder(true);
}

void RestoreOperation::create_relocation_folder() {
    if (m_plan.to.empty())
        return;
    bool made = ::mkdir(m_plan.to.c_str(), 0700) == 0;
    if (made && m_plan.kind == RestoreKind::copies) // the module works in it
        (void)give_folder_to_server_user(m_plan.to, m_plan.data_directory);
    if (!made && errno != EEXIST)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot create the folder {}: {}", for_terminal(m_plan.to),
                                      system_error_text(errno)));
}

void RestoreOperation::owe_all_when_logs_come_back() {
    bool logs = std::any_of(m_plan.items.begin(), m_plan.items.end(), [](const auto& planned) {
        return planned.item.log && planned.action == RestoreAction::write;
    });
    if (logs)
        m_debts.add_all(m_run.result.warnings);
}

void RestoreOperation::owe(const PlannedItem& planned) {
    if (planned.item.kind == ItemKind::database)
        m_debts.add(planned.item.path, m_run.result.warnings);
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
    if (std::optional<std::string> path = m_session->announce(planned)) {
        if (planned.action == RestoreAction::create_folder)
            create_folder(planned);
        else
            write_item(planned, *path);
    }
    m_session->end_item();
}

void RestoreOperation::create_folder(const PlannedItem& planned) {
    std::string problem;
    SafeFolder root(planned.root);
    if (!root.open_folder(path_below(planned.target, planned.root), problem,
                          m_run.created.callback(planned.root)))
        m_run.fail(planned, problem);
    else
        m_run.result.restored.push_back(planned.target);
}

// The link alone: what it names is not looked at.
void RestoreOperation::write_link(const PlannedItem& planned) {
    SafeFolder root(planned.root);
    std::string relative = path_below(planned.target, planned.root);
    std::string problem;
    FileDescriptor folder =
        root.open_folder(relative_folder(relative), problem, m_run.created.callback(planned.root));
    if (folder) {
        SafeFile link(std::move(folder), name_of(relative));
        problem = link.create_link(planned.item.target);
        if (problem.empty())
            problem = link.commit(&planned.item, planned.replaces);
    }
    if (problem.empty())
        m_run.result.restored.push_back(planned.target);
    else
        m_run.fail(planned, problem);
}

// 1. the folder, 2. the content under a temporary name, checked, 3. what it replaces is kept and it
// gets its name, 4. the place of the live database is looked at, 5. the item is finished.
void RestoreOperation::write_item(const PlannedItem& planned, const std::string& path) {
    std::string problem;
    FileDescriptor folder = open_folder(planned, path, problem);
    if (!folder) {
        m_run.fail(planned, problem);
        return;
    }
    const std::string name = name_of(path);
    bool there = m_activation->take_waiting(planned, folder.get(), name);
    SafeFile file(std::move(folder), name);
    if (!there && !fill(planned, file, problem)) {
        if (!problem.empty())
            m_run.fail(planned, problem);
        return;
    }
    problem = put_under_its_name(planned, file, there);
    for (const std::string& warning : file.warnings())
        m_run.warn(fmt::format("{}: {}", planned.target, warning));
    bool activate = planned.action == RestoreAction::activate;
    if (problem.empty() && activate) {
        problem = m_activation->check_live_target(planned);
        if (!problem.empty())
            ::unlink(path.c_str()); // in this run's own folder; at its end it goes anyway
    }
    if (!problem.empty()) {
        m_run.forget_kept(planned);
        m_run.fail(planned, problem);
        return;
    }
    if (activate)
        owe(planned);
    if (activate && m_plan.keep_replaced && !m_activation->keep_replaced(planned, path))
        return;
    activate ? m_activation->finish(planned, path) : finish_written(planned, path);
}

// The folder that the item is written to, which is made when it is not there.
FileDescriptor RestoreOperation::open_folder(const PlannedItem& planned, const std::string& path,
                                             std::string& problem) {
    bool placed = planned.action != RestoreAction::write;
    const std::string& root = placed ? m_run.temporary_folder() : planned.root;
    FolderCreated created =
        placed ? FolderCreated([this](int fd, const std::string&) { (void)give_to_module(fd); })
               : m_run.created.callback(planned.root);
    return SafeFolder(root).open_folder(relative_folder(path_below(path, root)), problem, created);
}

// A copy for the server is its user's until it is in place: the module reads and removes it.
bool RestoreOperation::is_for_module(const PlannedItem& planned) const {
    return planned.action == RestoreAction::activate ||
           (m_plan.kind == RestoreKind::copies && planned.item.kind == ItemKind::database);
}

std::string RestoreOperation::give_to_module(int fd) const {
    int error = give_to_server_user(fd, m_plan.data_directory);
    return error == 0 ? "" : "cannot give it to the server's user: " + system_error_text(error);
}

// Writes the content. Returns whether it is in the file, whole; if not, `problem` says why, and is
// empty for damage, which is told already.
bool RestoreOperation::fill(const PlannedItem& planned, SafeFile& file, std::string& problem) {
    problem = file.create();
    if (problem.empty() && is_for_module(planned))
        problem = give_to_module(file.descriptor());
    return problem.empty() && write_content(planned, file, problem);
}

bool RestoreOperation::write_content(const PlannedItem& planned, SafeFile& file,
                                     std::string& problem) {
    WrittenContent written =
        qrtln::write_content(m_context.store, planned.item, file, [&](std::uint64_t bytes) {
            m_session->forward_interrupt();
            throw_if_interrupted();
            m_progress->add_bytes(bytes);
        });
    problem = written.problem;
    if (!written.damage.empty()) {
        print_message(fmt::format("damaged: {}: {}", for_terminal(planned.item.path),
                                  for_terminal(written.damage)));
        m_run.result.damaged.push_back({planned.item.path, written.damage});
    }
    m_run.result.bytes += written.bytes;
    return written.whole();
}

// Keeps what is replaced, if wanted, and renames the file; one that is `there` has its name.
// Returns the problem.
std::string RestoreOperation::put_under_its_name(const PlannedItem& planned, SafeFile& file,
                                                 bool there) {
    bool written = planned.action == RestoreAction::write;
    bool replaces = written ? planned.replaces : !m_plan.pending_folder.empty();
    if (written && m_plan.to.empty())
        owe(planned);
    m_run.kept.clear();
    if (written && planned.keeps_replaced) {
        KeptFile kept =
            keep_beside(planned.root, planned.target, [] { return interrupt_signal() != 0; });
        m_run.kept = kept.path;
        if (!kept.problem.empty())
            return "it cannot be kept: " + kept.problem;
    }
    return there ? "" : file.commit(is_for_module(planned) ? nullptr : &planned.item, replaces);
}

void RestoreOperation::finish_written(const PlannedItem& planned, const std::string& path) {
    m_run.note_kept(planned);
    if (is_clients_own(planned)) {
        m_run.result.restored.push_back(planned.target);
        return;
    }
    if (!m_session->finish_item()) {
        m_run.fail(planned, "it was written, but the module reports: " + m_session->reason());
        return;
    }
    if (planned.action == RestoreAction::place)
        m_run.result.waiting.push_back({planned.item.path, path, {}, true, false, {}});
    else
        m_run.result.restored.push_back(planned.target);
}

void RestoreOperation::give_folder_metadata_back() {
    m_run.created.give_metadata_back([this](const std::string& root, const std::string& relative) {
        std::string path = fmt::format("{}/{}", root, relative);
        if (!m_plan.to.empty() && is_below(path, m_plan.to))
            path = path.substr(m_plan.to.size());
        auto original = m_plan.folders.find(path);
        return original == m_plan.folders.end() ? nullptr : &original->second;
    });
}

// Keeps the folder when restored copies wait in it.
void RestoreOperation::settle_temporary_folder(bool ended_early) {
    if (!m_run.temporary)
        return;
    TemporaryDirectory& temporary = *m_run.temporary;
    RestoreResult& result = m_run.result;
    if (ended_early) // what was only placed comes again with the next run
        std::erase_if(result.waiting,
                      [](const WaitingCopy& waiting) { return waiting.reason.empty(); });
    if (result.waiting.empty()) {
        if (int error = temporary.remove(); error != 0)
            m_run.warn("the temporary folder could not be removed: " + system_error_text(error));
        return;
    }
    std::string before = temporary.path();
    std::vector<NotedCopy> noted;
    for (const WaitingCopy& waiting : result.waiting)
        if (!waiting.reason.empty())
            noted.push_back({waiting.path, path_below(waiting.copy, before), waiting.object});
    result.noted = !noted.empty() && note_waiting_copies(before, m_plan.data_directory, noted) == 0;
    result.kept_folder = temporary.keep();
    for (WaitingCopy& waiting : result.waiting)
        waiting.copy = result.kept_folder + waiting.copy.substr(before.size());
    if (ended_early)
        for (const WaitingCopy& waiting : result.waiting)
            print_message(fmt::format("the restored copy of {} is kept: {} ({})",
                                      for_terminal(waiting.path), for_terminal(waiting.copy),
                                      for_terminal(waiting.reason)));
}

} // namespace

RestoreResult run_restore_operation(const OperationContext& context, const RestorePlan& plan,
                                    OwedDatabases* owed) {
    return RestoreOperation(context, plan, owed).run();
}

} // namespace qrtln
