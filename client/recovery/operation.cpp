#include "client/recovery/operation.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/recovery/journal_keeper.h"
#include "client/recovery/leftovers.h"
#include "client/recovery/placing.h"
#include "client/recovery/report.h"
#include "client/recovery/restored_copies.h"
#include "client/recovery/roll_forward.h"
#include "client/restore/created_folders.h"
#include "client/restore/safe_file.h"
#include "client/sets/catalogue.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// The states of a recovery, each with what a run that ends in it leaves. Those of one database are
// the DatabaseState of the journal.
//
//   state         the journal says              on the server             the next run
//   planned       nothing, or the last run's    nothing of this run       begins, or goes on
//   restoring     the request, databases,       pending folder, some      uses the copies that are
//                 logs about to come back       copies, files and logs    whole, restores the
//                 others
//   recovering    `recovering`, copies that     as above, and any of      leaves what is in place,
//                 are there, their links        them in its place         restores what is lost
//   placing       `done` for what is in place   what no log covers in     puts the others in place
//                                               place, one by one
//   waiting       databases that wait           pending folder and logs   tries those again
//   ended         is gone                       nothing but databases     begins
//
// Damage that is found while it restores leads back to `planned`, with that content passed over.
class Recovery {
  public:
    Recovery(const OperationContext& context, RecoveryRequest request,
             const RecoveryJournalFile& file, const std::optional<RecoveryJournal>& journal);
    RecoveryResult run();

  private:
    bool keeps_state_elsewhere() const {
        return m_context.store.runtime_directory() != m_context.store.stored_runtime_directory();
    }
    OwedDatabases* owed() { return m_owed ? &*m_owed : nullptr; }
    bool restore_round();
    RecoverySituation situation();
    void tell_what_is_in_place();
    void require_what_is_needed();
    void create_data_directory();
    void create_pending_folder();
    void write_journal();
    void roll_forward();
    void note_as_owed();
    void settle();

    const OperationContext& m_context;
    RecoveryRequest m_request;
    RecoveryPlan m_plan;
    LiveDatabases m_live;
    std::optional<OwedDatabases> m_owed; // none for a proof, which puts nothing in place
    JournalKeeper m_keeper;
    RecoveryReport m_report;
    RestoredCopies m_copies;
};

Recovery::Recovery(const OperationContext& context, RecoveryRequest request,
                   const RecoveryJournalFile& file, const std::optional<RecoveryJournal>& journal)
    : m_context(context), m_request(std::move(request)), m_live(context), m_keeper(file, journal),
      m_copies(context, m_keeper, m_report) {
    const std::string& left = m_keeper.journal().pending_folder;
    if (!left.empty() && exists(left))
        m_request.tmp_dir = folder_of(left); // whatever it is by now
    if (m_request.kind != RecoveryKind::proof)
        m_owed.emplace(keeps_state_elsewhere()
                           ? copy_owed(context.store, context.store.runtime_directory())
                           : owed_file_of(context.store));
}

RecoveryResult Recovery::run() {
    while (!restore_round())
        m_report.forget_round();
    m_report.warn(m_plan.warnings);
    for (const PlannedItem& planned : m_plan.refused)
        m_report.result().failed.push_back({planned.item.path, planned.reason});
    roll_forward();
    put_only_its_set_in_place(m_context, m_plan, m_keeper, m_report);
    settle();
    return std::move(m_report.result());
}

// Makes a plan and brings back what comes from the store. Returns false when damage was found that
// calls for another plan.
bool Recovery::restore_round() {
    m_request.selection.damaged = m_copies.damaged();
    m_plan = make_recovery_plan(m_context.store, m_context.ini, m_request, situation());
    tell_what_is_in_place();
    // A gap is found before anything is touched.
    if (!m_copies.check_logs(m_plan.logs))
        return false;
    require_what_is_needed();
    create_data_directory();
    create_pending_folder();
    write_journal();
    return m_copies.restore(m_plan);
}

RecoverySituation Recovery::situation() {
    RecoverySituation situation;
    situation.live = m_request.kind == RecoveryKind::proof ? nullptr : &m_live;
    situation.owed = owed();
    situation.journal = m_keeper.resumed() ? &m_keeper.journal() : nullptr;
    situation.log_folder_was_lost = m_keeper.journal().log_folder_lost;
    return situation;
}

void Recovery::tell_what_is_in_place() {
    for (const RecoveringDatabase& database : m_plan.in_place_before) {
        const std::string& path = database.planned.item.path;
        if (m_report.has_told_of(path))
            continue;
        const DoneDatabase* done = m_keeper.journal().done_of(path);
        const PendingDatabase* pending = m_keeper.journal().entry_of(path);
        DoneDatabase known{path, {}, {}};
        if (done != nullptr)
            known = *done;
        else if (pending != nullptr)
            known = {path, pending->doubt, pending->set};
        // The set of the plan may be one of a backup that saved what had been put in place.
        DatabaseRecovery& told =
            m_report.tell(database, RecoveryOutcome::in_place, known.shortfall);
        told.set = known.set;
        told.set_ended = 0;
        if (!told.set.empty())
            if (CatalogueEntry entry = load_set(m_context.store, told.set); entry.manifest)
                told.set_ended = complete_at(*entry.manifest);
        if (m_keeper.was_lost(path)) // a run that was killed had no time for that
            give_owner_and_mode(m_plan, database, m_keeper, m_report);
        m_keeper.note_in_place(known);
    }
}

void Recovery::require_what_is_needed() {
    bool rolls_forward = m_plan.rolls_forward();
    // What this run began is of no use then, and would stand in the way of another time.
    if (rolls_forward && m_plan.logs.missing && m_keeper.is_of_this_run()) {
        print_warnings(m_keeper.remove_leftovers());
        m_keeper.remove_journal();
    }
    if (rolls_forward)
        require_logs(m_plan);
    m_copies.find_whole(m_plan);
    require_room(recovery_room(m_plan, m_request.tmp_dir, m_copies.whole()));
}

// A new disk in the place of the lost one is empty, or not even that.
void Recovery::create_data_directory() {
    const std::string& directory = m_plan.data_directory;
    const bool in_place = m_plan.in_place();
    if (in_place && !m_plan.data_directory_missing)
        if (std::string told = give_empty_data_directory(directory, m_plan.others.folders);
            !told.empty())
            m_report.warn(told);
    if (!m_plan.data_directory_missing || !in_place)
        return;
    std::string above = folder_of(directory);
    if (real_path(above).value_or("") != above)
        throw ClientError(ExitCode::failed,
                          fmt::format("the folder above the data directory {} is missing, or is "
                                      "reached through a symbolic link",
                                      for_terminal(directory)),
                          "create it, or mount its disk");
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot create the data directory {}: {}",
                                      for_terminal(directory), system_error_text(errno)));
    auto original = m_plan.others.folders.find(directory);
    std::string problem;
    if (original != m_plan.others.folders.end())
        if (FileDescriptor folder = SafeFolder(above).open_folder(name_of(directory), problem))
            problem = apply_metadata(folder.get(), original->second);
    if (!problem.empty())
        m_report.warn(directory + ": " + problem);
    m_plan.data_directory_missing = false;
}

void Recovery::create_pending_folder() {
    if (!m_plan.in_place())
        return;
    const std::string& left = m_keeper.journal().pending_folder;
    if (left.empty() || !exists(left)) {
        m_keeper.set_pending_folder(make_pending_folder(m_request.tmp_dir, m_plan.data_directory));
        return;
    }
    // It may be from a run that was no other user's.
    if (int error = give_tree_to_server_user(left, m_plan.data_directory); error != 0)
        throw ClientError(
            ExitCode::failed,
            fmt::format("cannot give the folder of restored copies {} to the server's user: {}",
                        for_terminal(left), system_error_text(error)));
}

void Recovery::write_journal() {
    m_keeper.begin_round(m_request, m_plan, m_report.databases(), owed());
    if (!m_owed || !m_keeper.journal().log_folder_lost)
        return;
    // What was committed between the newest set and the loss is in no log: none leads over it.
    if (keeps_state_elsewhere())
        m_report.warn(not_owed_text("the store can only be read"));
    else
        m_owed->add_restored(m_plan.data_directory,
                             saved_databases(m_context.store, m_context.ini.sets));
}

void Recovery::roll_forward() {
    const bool in_place = m_plan.in_place();
    std::vector<const RecoveringDatabase*> databases;
    for (const RecoveringDatabase& database : m_plan.databases)
        if (database.only_its_set.empty())
            databases.push_back(&database);
        else if (!in_place)
            m_report.tell(database, RecoveryOutcome::only_its_set, database.only_its_set);
    if (in_place)
        set_destroyed_aside(m_plan, m_report);
    m_keeper.begin_roll_forward(m_plan, m_report.databases(), owed());
    if (in_place)
        note_as_owed();
    if (!databases.empty())
        RollForward(m_context, m_plan, m_request.tmp_dir, m_keeper, m_report, owed())
            .run(std::move(databases));
}

// Before they are in place: the next backup saves what no log leads to from the copies in the sets.
void Recovery::note_as_owed() {
    for (const RecoveringDatabase& database : m_plan.databases)
        if (database.owed_then)
            m_owed->add(m_plan.data_directory, database.planned.item.path, true);
}

// Removes what is of no more use, or keeps it for a second run.
void Recovery::settle() {
    RecoveryResult& result = m_report.result();
    const RecoveryJournal& journal = m_keeper.journal();
    m_copies.tell_damage(m_plan);
    result.logs_end_early = journal.log_folder_lost;
    result.logs_end = journal.logs_end;
    if (m_request.kind == RecoveryKind::proof)
        return; // the caller looks at the databases first
    m_keeper.strike_what_is_in_place(result.databases);
    bool waits = std::any_of(result.databases.begin(), result.databases.end(),
                             [](const DatabaseRecovery& database) {
                                 return database.outcome == RecoveryOutcome::waiting;
                             });
    if (waits) {
        result.pending_folder = journal.pending_folder;
        return;
    }
    m_report.warn(m_keeper.remove_leftovers());
    m_keeper.remove_journal();
    std::erase_if(result.restored, [&](const std::string& path) {
        return std::any_of(journal.extents.begin(), journal.extents.end(),
                           [&](const PutBackLog& log) { return log.path == path; });
    }); // came back for the recovery alone
}

} // namespace

RecoveryResult run_recovery(const OperationContext& context, RecoveryRequest request,
                            const RecoveryJournalFile& file,
                            const std::optional<RecoveryJournal>& journal) {
    return Recovery(context, std::move(request), file, journal).run();
}

} // namespace qrtln
