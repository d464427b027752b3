#include "client/recovery/operation.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/module/control_variables.h"
#include "client/module/neutral_path.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/restores.h"
#include "client/restore/created_folders.h"
#include "client/restore/plan.h"
#include "client/restore/safe_file.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/store/file_digest.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

// Reasons that the module gives, and what begins another.

// Below the pending folder; copies have no names like those of the links in it.
constexpr const char* links_folder = "/qrtln-links";

class Recovery {
  public:
    Recovery(const OperationContext& context, RecoveryRequest request,
             const RecoveryJournalFile& file, const std::optional<RecoveryJournal>& journal)
        : m_context(context), m_request(std::move(request)), m_file(file), m_live(context) {
        if (journal) {
            m_journal = *journal;
            m_resumed = true;
        }
        m_request.log_folder_was_lost = m_journal.log_folder_lost;
        if (!m_journal.pending_folder.empty() && exists(m_journal.pending_folder))
            m_request.tmp_dir = folder_of(m_journal.pending_folder); // whatever it is by now
        if (!m_request.databases_only)
            m_owed.emplace(keeps_state_elsewhere()
                               ? copy_owed(context.store, context.store.runtime_directory())
                               : owed_file_of(context.store));
    }
    RecoveryResult run();

  private:
    bool keeps_state_elsewhere() const {
        return m_context.store.runtime_directory() != m_context.store.stored_runtime_directory();
    }
    bool in_place() const { return m_plan.into.empty(); }
    RecoverySituation situation();
    std::string copy_of(const RecoveringDatabase& database) const;
    DatabaseRecovery& report(const RecoveringDatabase& database, RecoveryOutcome outcome,
                             const std::string& reason = {});
    void forget_round();
    void report_in_place();
    bool was_lost(const std::string& path) const;
    bool logs_are_whole();
    void require_what_is_needed();
    void find_whole_copies();
    void create_pending_folder();
    void create_data_directory();
    void write_journal();
    void list_databases();
    void name_copies_twice();
    void set_destroyed_aside();
    void note_as_owed();
    bool ends_early() const;
    std::string doubt_about(const RecoveringDatabase& database) const;
    bool restore_from_store();
    bool take_result(RestoreResult result, const RestorePlan& plan);
    bool check_only_its_set();
    void note_damage(const PlannedItem& planned, const std::string& reason);
    void roll_forward();
    std::vector<const RecoveringDatabase*>
    roll_forward_once(const std::vector<const RecoveringDatabase*>& databases);
    std::vector<std::string> variables(const std::vector<const RecoveringDatabase*>& databases,
                                       const std::string& temporary, const std::string& into) const;
    void report_recovered(const RecoveringDatabase& database);
    void put_only_its_set_in_place();
    void give_owner_and_mode(const RecoveringDatabase& database);
    void strike_what_is_in_place();
    void settle_damage();
    void settle();

    const OperationContext& m_context;
    RecoveryRequest m_request;
    const RecoveryJournalFile& m_file;
    RecoveryJournal m_journal;
    bool m_resumed = false;
    bool m_began = false; // this run wrote the journal
    RecoveryPlan m_plan;
    std::set<std::string> m_checked_logs;         // objects
    std::map<std::string, std::string> m_whole;   // by path: the object whose copy waits, whole
    std::map<std::string, std::string> m_damaged; // by path: why no set gives it
    std::set<std::string> m_reported;             // paths
    LiveDatabases m_live;
    std::optional<OwedDatabases> m_owed; // none for a proof, which puts nothing in place
    RecoveryResult m_result;
};

RecoverySituation Recovery::situation() {
    RecoverySituation situation;
    situation.live = m_request.databases_only ? nullptr : &m_live;
    situation.owed = m_owed ? &*m_owed : nullptr;
    situation.journal = m_resumed ? &m_journal : nullptr;
    return situation;
}

std::string Recovery::copy_of(const RecoveringDatabase& database) const {
    const std::string& path = database.planned.item.path;
    return in_place() ? m_journal.pending_folder + path.substr(m_plan.data_directory.size())
                      : database.planned.target;
}

DatabaseRecovery& Recovery::report(const RecoveringDatabase& database, RecoveryOutcome outcome,
                                   const std::string& reason) {
    bool shown = outcome == RecoveryOutcome::waiting || outcome == RecoveryOutcome::failed;
    if (shown)
        print_message("not recovered: " + for_terminal(database.planned.item.path) + ": " +
                      for_terminal(reason));
    m_reported.insert(database.planned.item.path);
    return m_result.databases.emplace_back(
        DatabaseRecovery{database.planned.item.path, database.planned.target, database.planned.set,
                         database.set_ended, outcome, reason, database.only_its_set.empty(),
                         database.same_instance, database.same_until});
}

RecoveryResult Recovery::run() {
    for (;;) {
        m_plan = make_recovery_plan(m_context.store, m_context.ini, m_request, situation());
        report_in_place();
        if (!logs_are_whole()) {
            forget_round();
            continue;
        }
        require_what_is_needed();
        create_data_directory();
        create_pending_folder();
        write_journal();
        if (restore_from_store())
            break;
        forget_round();
    }
    for (const std::string& warning : m_plan.warnings)
        m_result.warnings.push_back(warning);
    for (const PlannedItem& planned : m_plan.refused)
        m_result.failed.push_back({planned.item.path, planned.reason});
    roll_forward();
    put_only_its_set_in_place();
    settle();
    return std::move(m_result);
}

// What failed, and what came back beside the databases, is told again by the next round.
void Recovery::forget_round() {
    m_result.restored.clear();
    m_result.failed.clear();
    std::erase_if(m_result.databases, [this](const DatabaseRecovery& database) {
        bool again = database.outcome == RecoveryOutcome::failed;
        if (again)
            m_reported.erase(database.path);
        return again;
    });
}

void Recovery::report_in_place() {
    for (const RecoveringDatabase& database : m_plan.in_place) {
        const std::string& path = database.planned.item.path;
        if (m_reported.contains(path))
            continue;
        const DoneDatabase* done = m_journal.done_of(path);
        const PendingDatabase* pending = m_journal.entry_of(path);
        std::string shortfall = done != nullptr      ? done->shortfall
                                : pending != nullptr ? pending->doubt
                                                     : std::string();
        // The set of the plan may be one of a backup that saved what had been put in place.
        DatabaseRecovery& told = report(database, RecoveryOutcome::in_place, shortfall);
        told.set = done != nullptr ? done->set : pending != nullptr ? pending->set : "";
        told.set_ended = 0;
        if (!told.set.empty())
            if (CatalogueEntry entry = load_set(m_context.store, told.set); entry.manifest)
                told.set_ended = complete_at(*entry.manifest);
        std::string set = told.set;
        if (was_lost(path)) // a run that was killed had no time for that
            give_owner_and_mode(database);
        if (done == nullptr)
            m_journal.done.push_back({path, shortfall, set});
    }
}

// The original was lost, so that a place without its owner and mode was made, now or by an earlier
// run.
bool Recovery::was_lost(const std::string& path) const {
    const PendingDatabase* pending = m_journal.entry_of(path);
    return pending != nullptr && pending->lost;
}

// The logs from the store are read once before anything is written: a gap is found before anything
// is touched. Returns false when damage was found that calls for another plan.
bool Recovery::logs_are_whole() {
    if (m_plan.logs.missing)
        return true;
    std::vector<StoredLog> logs = m_plan.logs.restore;
    if (m_plan.logs.control)
        logs.push_back(*m_plan.logs.control);
    bool whole = true;
    for (const StoredLog& log : logs) {
        if (m_checked_logs.contains(log.item.object))
            continue;
        ObjectCheck check =
            m_context.store.read_object(log.item.object, [](Bytes) { throw_if_interrupted(); });
        if (check.problem.empty() && check.size == log.item.size) {
            m_checked_logs.insert(log.item.object);
            continue;
        }
        std::string problem = check.problem.empty() ? "has another size" : check.problem;
        print_message("damaged: " + for_terminal(log.item.path) + " in the set " +
                      for_terminal(log.set) + ": its object " + log.item.object + " " + problem);
        m_request.selection.damaged.insert({log.item.path, log.item.object});
        whole = false;
    }
    return whole;
}

void Recovery::require_what_is_needed() {
    bool rolls_forward = std::any_of(
        m_plan.databases.begin(), m_plan.databases.end(),
        [](const RecoveringDatabase& database) { return database.only_its_set.empty(); });
    // What this run began is of no use then, and would stand in the way of another time.
    if (rolls_forward && m_plan.logs.missing && !m_resumed && m_began) {
        print_warnings(abandon_recovery(m_journal));
        m_file.remove();
    }
    if (rolls_forward)
        require_logs(m_plan);
    find_whole_copies();
    require_room(recovery_room(m_plan, m_request.tmp_dir, m_whole));
}

// Copies that an earlier run left, or the round before, need not be read from the store again.
void Recovery::find_whole_copies() {
    if (m_journal.pending_folder.empty())
        return;
    for (const RecoveringDatabase& database : m_plan.databases) {
        const ManifestItem& item = database.planned.item;
        auto known = m_whole.find(item.path);
        if (known != m_whole.end() && known->second == item.object)
            continue;
        m_whole.erase(item.path);
        if (database.only_its_set.empty() &&
            file_has_content(copy_of(database), item.object, throw_if_interrupted))
            m_whole[item.path] = item.object;
    }
}

void Recovery::create_pending_folder() {
    if (!in_place())
        return;
    if (const std::string& left = m_journal.pending_folder; !left.empty() && exists(left)) {
        // It may be from a run that was no other user's.
        if (int error = give_tree_to_server_user(left, m_plan.data_directory); error != 0)
            throw ClientError(ExitCode::failed,
                              "cannot give the folder of restored copies " + for_terminal(left) +
                                  " to the server's user: " + system_error_text(error));
        return;
    }
    m_journal.pending_folder = make_pending_folder(m_request.tmp_dir, m_plan.data_directory);
}

// A new disk in the place of the lost one is empty, or not even that.
void Recovery::create_data_directory() {
    const std::string& directory = m_plan.data_directory;
    if (in_place() && !m_plan.data_directory_missing)
        if (std::string told = give_empty_data_directory(directory, m_plan.others.folders);
            !told.empty())
            m_result.warnings.push_back(told);
    if (!m_plan.data_directory_missing || !in_place())
        return;
    std::string above = folder_of(directory);
    if (real_path(above).value_or("") != above)
        throw ClientError(ExitCode::failed,
                          "the folder above the data directory " + for_terminal(directory) +
                              " is missing, or is reached through a symbolic link",
                          "create it, or mount its disk");
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        throw ClientError(ExitCode::failed, "cannot create the data directory " +
                                                for_terminal(directory) + ": " +
                                                system_error_text(errno));
    auto original = m_plan.others.folders.find(directory);
    std::string problem;
    if (original != m_plan.others.folders.end())
        if (FileDescriptor folder = SafeFolder(above).open_folder(name_of(directory), problem))
            problem = apply_metadata(folder.get(), original->second);
    if (!problem.empty())
        m_result.warnings.push_back(directory + ": " + problem);
    m_plan.data_directory_missing = false;
}

void Recovery::write_journal() {
    m_journal.data_directory = m_plan.data_directory;
    m_journal.names = m_request.selection.names;
    m_journal.all = m_request.selection.all;
    m_journal.to = m_request.to;
    m_journal.into = m_request.into;
    m_journal.new_dbiid = m_request.new_dbiid;
    m_journal.replace_live = m_request.replace_live;
    m_journal.logs_lost = m_request.logs_lost;
    m_journal.from_server = m_request.from_server;
    m_journal.moved = m_request.moved;
    if (m_plan.server_logs.missing && !m_plan.logs.restore.empty()) {
        m_journal.log_folder_lost = m_request.log_folder_was_lost = true;
        if (m_plan.logs.ends)
            m_journal.logs_end = m_plan.logs.ends;
    }
    list_databases();
    // Before they are there: what is not there does no harm when it is to be removed.
    if (!m_plan.server_logs.missing)
        for (const StoredLog& log : m_plan.logs.restore) {
            PutBackLog extent{log_target(m_plan, log), log.item.object};
            std::erase_if(m_journal.extents,
                          [&](const PutBackLog& known) { return known.path == extent.path; });
            m_journal.extents.push_back(std::move(extent));
        }
    m_file.write(m_journal);
    m_began = true;
    // What was committed between the newest set and the loss is in no log: none leads over it.
    if (m_owed && m_journal.log_folder_lost && keeps_state_elsewhere())
        m_result.warnings.push_back(not_owed_text("the store can only be read"));
    else if (m_owed && m_journal.log_folder_lost)
        m_owed->add_restored(m_plan.data_directory,
                             saved_databases(m_context.store, m_context.ini.sets));
}

// Those that are still to be put in their places. A copy is named when it is there: when it is gone
// later, it was put in its place or cleaned away.
void Recovery::list_databases() {
    if (!in_place())
        return;
    std::vector<PendingDatabase> databases;
    for (const RecoveringDatabase& database : m_plan.databases) {
        const PlannedItem& planned = database.planned;
        const PendingDatabase* known = m_journal.entry_of(planned.item.path);
        PendingDatabase pending = known != nullptr ? *known : PendingDatabase{};
        pending.path = planned.item.path;
        pending.copy = copy_of(database);
        pending.lost = pending.lost || !planned.existing.has_value();
        pending.doubt = doubt_about(database);
        pending.set = planned.set;
        if (!database.only_its_set.empty() || !exists(pending.copy))
            pending.copy.clear();
        // One that was there before this recovery tells of something else.
        pending.owed = pending.owed || ((database.owed_then || m_journal.log_folder_lost) &&
                                        !m_owed->is_restored(m_plan.data_directory, pending.path));
        databases.push_back(std::move(pending));
    }
    for (const DatabaseRecovery& done : m_result.databases)
        if (done.outcome == RecoveryOutcome::failed)
            databases.push_back({.path = done.path, .copy = {}, .lost = was_lost(done.path)});
    m_journal.databases = std::move(databases);
    std::erase_if(m_journal.done, [this](const DoneDatabase& done) {
        return m_journal.entry_of(done.path) != nullptr; // it is recovered again
    });
}

// The server removes a copy when it has put it in place, by the only name that it knows.
void Recovery::name_copies_twice() {
    std::string folder = m_journal.pending_folder + links_folder;
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw ClientError(ExitCode::failed, "cannot create the folder " + for_terminal(folder) +
                                                ": " + system_error_text(errno));
    std::size_t number = 0;
    for (PendingDatabase& pending : m_journal.databases) {
        if (pending.copy.empty())
            continue;
        pending.before = file_state(pending.path);
        pending.link = folder + "/" + std::to_string(number++);
        ::unlink(pending.link.c_str()); // of an earlier run
        if (::link(pending.copy.c_str(), pending.link.c_str()) != 0)
            pending.link.clear(); // not every file system has them: the original is asked then
    }
    int error = flush_directory(AT_FDCWD, folder);
    if (error == 0)
        error = flush_directory(AT_FDCWD, m_journal.pending_folder);
    if (error != 0)
        throw ClientError(ExitCode::failed, "cannot flush the folder of restored copies " +
                                                for_terminal(m_journal.pending_folder) + ": " +
                                                system_error_text(error));
}

// The server cannot take offline what is no database any more, so that nothing could replace it.
void Recovery::set_destroyed_aside() {
    for (RecoveringDatabase& database : m_plan.databases) {
        PlannedItem& planned = database.planned;
        if (!database.set_aside)
            continue;
        std::string problem;
        std::string name = set_aside(planned, problem);
        if (!problem.empty()) {
            m_result.warnings.push_back(planned.target +
                                        ": is no database any more, and cannot be "
                                        "set aside: " +
                                        problem);
            continue;
        }
        m_result.warnings.push_back(planned.target +
                                    ": was no database any more, and is set aside as " + name);
        if (!planned.item.has_metadata) {
            planned.item.has_metadata = true;
            planned.item.mode = planned.existing->st_mode & 07777;
            planned.item.uid = planned.existing->st_uid;
            planned.item.gid = planned.existing->st_gid;
            planned.item.mtime_ns = planned.existing->st_mtim.tv_sec * std::int64_t{1'000'000'000};
        }
        planned.existing.reset();
    }
}

// Before they are in place: the next backup saves what no log leads to from the copies in the sets.
void Recovery::note_as_owed() {
    for (const RecoveringDatabase& database : m_plan.databases)
        if (database.owed_then)
            m_owed->add(m_plan.data_directory, database.planned.item.path, true);
}

// The server's own logs are lost, and the wanted end is not known to be in the stored ones.
bool Recovery::ends_early() const {
    const std::optional<std::int64_t>& to = m_request.to;
    return m_journal.log_folder_lost && !(to && m_journal.logs_end && *to <= *m_journal.logs_end);
}

// Returns false when damage was found that calls for another plan.
bool Recovery::restore_from_store() {
    if (!check_only_its_set())
        return false;
    RestorePlan copies = plan_copies(m_plan, m_journal.pending_folder, m_whole);
    if (!take_result(run_restore_operation(m_context, copies), copies))
        return false;
    RestorePlan extents = plan_extents(m_plan);
    return take_result(run_restore_operation(m_context, extents), extents);
}

// What is put in place last, from the store, is read once before anything is touched.
bool Recovery::check_only_its_set() {
    bool whole = true;
    if (!in_place())
        return whole;
    for (const RecoveringDatabase& database : m_plan.databases) {
        if (database.only_its_set.empty())
            continue;
        const PlannedItem& planned = database.planned;
        ObjectCheck check =
            m_context.store.read_object(planned.item.object, [](Bytes) { throw_if_interrupted(); });
        if (check.problem.empty())
            continue;
        note_damage(planned, "its object " + planned.item.object + " " + check.problem);
        whole = false;
    }
    return whole;
}

void Recovery::note_damage(const PlannedItem& planned, const std::string& reason) {
    m_request.selection.damaged.insert({planned.item.path, planned.item.object});
    m_damaged[planned.item.path] = reason;
}

bool Recovery::take_result(RestoreResult result, const RestorePlan& plan) {
    m_result.bytes += result.bytes;
    std::move(result.warnings.begin(), result.warnings.end(),
              std::back_inserter(m_result.warnings));
    std::map<std::string, const PlannedItem*> planned;
    for (const PlannedItem& item : plan.items)
        planned[item.item.path] = &item;
    for (const WaitingCopy& waiting : result.waiting)
        m_whole[waiting.path] = planned.at(waiting.path)->item.object;
    for (const FailedRestore& damaged : result.damaged)
        note_damage(*planned.at(damaged.path), damaged.reason);
    std::map<std::string, std::string> failed_databases;
    for (const auto& [path, reason] : result.failed) {
        const PlannedItem& item = *planned.at(path);
        if (item.item.log)
            throw ClientError(ExitCode::failed,
                              "cannot put the transaction log " + for_terminal(item.target) +
                                  " back: " + for_terminal(reason),
                              "run the same command again when that is mended: what is restored "
                              "so far is kept");
        if (item.item.kind == ItemKind::database)
            failed_databases[path] = reason;
        else
            m_result.failed.push_back({path, reason});
    }
    std::erase_if(m_plan.databases, [&](const RecoveringDatabase& database) {
        auto failed = failed_databases.find(database.planned.item.path);
        if (failed == failed_databases.end())
            return false;
        report(database, RecoveryOutcome::failed, failed->second);
        return true;
    });
    std::set<std::string> databases; // these have an outcome of their own
    for (const RecoveringDatabase& database : m_plan.databases)
        databases.insert(database.planned.target);
    for (const std::string& restored : result.restored)
        if (!databases.contains(restored))
            m_result.restored.push_back(restored);
    return result.damaged.empty();
}

// One database that the server cannot recover must not keep the others from it.
void Recovery::roll_forward() {
    std::vector<const RecoveringDatabase*> databases;
    for (const RecoveringDatabase& database : m_plan.databases)
        if (database.only_its_set.empty())
            databases.push_back(&database);
        else if (!in_place())
            report(database, RecoveryOutcome::only_its_set, database.only_its_set);
    if (in_place())
        set_destroyed_aside();
    list_databases();
    if (in_place())
        name_copies_twice();
    m_journal.recovering = true;
    m_file.write(m_journal);
    if (in_place())
        note_as_owed();
    while (!databases.empty()) {
        throw_if_interrupted();
        databases = roll_forward_once(databases);
        strike_what_is_in_place();
    }
}

std::vector<std::string>
Recovery::variables(const std::vector<const RecoveringDatabase*>& databases,
                    const std::string& temporary, const std::string& into) const {
    std::vector<std::string> variables = {tmp_dir_variable(temporary), recovery_variable,
                                          rollforward_variable(m_plan.to)};
    if (m_plan.new_dbiid)
        variables.emplace_back(new_dbiid_variable);
    if (!in_place())
        variables.push_back(relocation_variable(into, false));
    for (const RecoveringDatabase* database : databases)
        variables.push_back(database_variable(database_value(database->planned.item.path)));
    return variables;
}

// Why a database may not be what was asked for although it is rolled forward; empty when it is.
std::string Recovery::doubt_about(const RecoveringDatabase& database) const {
    if (!database.doubt.empty() || !ends_early())
        return database.doubt;
    return "the server's own transaction logs are lost: what was committed after the stored ones "
           "is "
           "in no log";
}

void Recovery::report_recovered(const RecoveringDatabase& database) {
    std::string doubt = doubt_about(database);
    report(database, doubt.empty() ? RecoveryOutcome::recovered : RecoveryOutcome::uncertain,
           doubt);
}

// Returns those that are to be tried again, without one that made the whole recovery fail.
std::vector<const RecoveringDatabase*>
Recovery::roll_forward_once(const std::vector<const RecoveringDatabase*>& databases) {
    const NeutralPath into(m_plan.into, m_plan.data_directory);
    std::vector<std::string> targets;
    targets.reserve(databases.size());
    for (const RecoveringDatabase* database : databases)
        targets.push_back(into.for_module(database->planned.target));
    ToldOutcomes told(targets);
    std::optional<TemporaryDirectory> temporary;
    if (!in_place())
        temporary.emplace(absolute_path(m_request.tmp_dir), m_plan.data_directory);
    ModuleSession session(
        m_context, [&](const std::string& line) { told.read(line); },
        [&](const std::string& line) { told.read_trace(line); });
    int status =
        session.init(DB_TYPE_RST, DB_LEVEL_FULL,
                     variables(databases, temporary ? temporary->path() : m_journal.pending_folder,
                               into.path()));
    std::string reason = status == DB_NUM_I_COMPLETE ? "" : into.in_text(session.reason());

    std::vector<const RecoveringDatabase*> again;
    bool one_failed = false;
    for (const RecoveringDatabase* database : databases) {
        std::optional<ToldOutcomes::Told> outcome =
            told.of(into.for_module(database->planned.target));
        if (outcome)
            outcome->reason = into.in_text(outcome->reason);
        bool waits = in_place() && exists(copy_of(*database));
        if (!outcome) {
            report(*database,
                   !in_place() ? RecoveryOutcome::failed
                   : waits     ? RecoveryOutcome::waiting
                               : RecoveryOutcome::uncertain,
                   reason.empty() ? "the module did not tell what became of it" : reason);
        } else if (outcome->outcome == RecoveryOutcome::recovered) {
            report_recovered(*database);
            give_owner_and_mode(*database);
        } else if (outcome->outcome != RecoveryOutcome::failed ||
                   meaning_of(outcome->reason) == NotRolledForward::no_new_dbiid) {
            report(*database, RecoveryOutcome::uncertain, outcome->reason).rolled_forward = false;
            give_owner_and_mode(*database);
        } else if (meaning_of(outcome->reason) == NotRolledForward::failed_elsewhere) {
            again.push_back(database);
        } else if (meaning_of(outcome->reason) == NotRolledForward::unknown_to_log) {
            report(*database, RecoveryOutcome::only_its_set,
                   is_template(database->planned.item.path) ? template_reason : outcome->reason);
            if (in_place())
                m_owed->add(m_plan.data_directory, database->planned.item.path, true);
            give_owner_and_mode(*database);
        } else {
            std::string why = outcome->reason;
            if (!told.missing_log().empty() && !one_failed)
                why += " (the transaction log " + told.missing_log() + " is missing)";
            report(*database, waits ? RecoveryOutcome::waiting : RecoveryOutcome::failed, why);
            one_failed = true;
        }
    }
    if (!again.empty() && !one_failed) { // no progress: nothing names the one that fails
        for (const RecoveringDatabase* database : again)
            report(*database, in_place() ? RecoveryOutcome::waiting : RecoveryOutcome::failed,
                   reason);
        again.clear();
    }
    return again;
}

// A database that was lost came into being as this user's.
void Recovery::give_owner_and_mode(const RecoveringDatabase& database) {
    const PlannedItem& planned = database.planned;
    if (in_place() && planned.existing && !was_lost(planned.item.path))
        return;
    std::string problem;
    FileDescriptor file =
        SafeFolder(planned.root).open_file(path_below(planned.target, planned.root), problem);
    struct stat status {};
    if (file && ::fstat(file.get(), &status) == 0) {
        ManifestItem item = planned.item;
        item.mtime_ns = modification_time_ns(status);
        problem = apply_metadata(file.get(), item);
    }
    if (!problem.empty())
        m_result.warnings.push_back(planned.target + ": " + problem);
}

void Recovery::strike_what_is_in_place() {
    std::map<std::string, const DatabaseRecovery*> results;
    for (const DatabaseRecovery& database : m_result.databases)
        results[database.path] = &database;
    std::vector<std::string> links;
    std::erase_if(m_journal.databases, [&](PendingDatabase& pending) {
        auto result = results.find(pending.path);
        if (result == results.end())
            return false;
        if (result->second->outcome == RecoveryOutcome::waiting) {
            pending.before.reset(); // not in its place, whatever becomes of the copy
            return false;
        }
        if (result->second->outcome == RecoveryOutcome::failed) {
            pending.copy.clear();
            return false;
        }
        const DatabaseRecovery& database = *result->second;
        m_journal.done.push_back(
            {pending.path, database.falls_short() ? database.reason : "", database.set});
        links.push_back(pending.link);
        return true;
    });
    m_file.write(m_journal);
    for (const std::string& link : links) // room for those that follow
        if (!link.empty())
            ::unlink(link.c_str());
}

// One at a time, and struck out at once: a second run must not put it back over later changes.
void Recovery::put_only_its_set_in_place() {
    if (!in_place())
        return;
    for (const RecoveringDatabase& database : m_plan.databases) {
        if (database.only_its_set.empty())
            continue;
        RestorePlan plan = plan_activation(m_plan, m_journal.pending_folder, database);
        RestoreResult result = run_restore_operation(m_context, plan);
        m_result.bytes += result.bytes;
        for (const std::string& warning : result.warnings)
            m_result.warnings.push_back(warning);
        if (!result.restored.empty()) {
            report(database, RecoveryOutcome::only_its_set, database.only_its_set);
            strike_what_is_in_place();
            continue;
        }
        std::string reason = !result.waiting.empty()   ? result.waiting.front().reason
                             : !result.failed.empty()  ? result.failed.front().reason
                             : !result.damaged.empty() ? result.damaged.front().reason
                                                       : "it was not put in place";
        report(database,
               result.waiting.empty() ? RecoveryOutcome::failed : RecoveryOutcome::waiting, reason);
    }
}

// Damage that an older copy made up for is told apart from damage that nothing makes up for.
void Recovery::settle_damage() {
    std::map<std::string, std::string> sets; // by path: where what came back is from
    for (const RecoveringDatabase& database : m_plan.databases)
        sets[database.planned.item.path] = database.planned.set;
    for (const PlannedItem& planned : m_plan.others.items)
        sets[planned.item.path] = planned.set;
    for (const auto& [path, reason] : m_damaged)
        if (auto no_older = m_plan.no_whole_copy.find(path); sets.contains(path))
            m_result.replaced.push_back(
                {path, reason + "; the copy of the set " + sets[path] + " was taken"});
        else if (!m_reported.contains(path))
            m_result.damaged.push_back({path, no_older == m_plan.no_whole_copy.end()
                                                  ? reason + "; no other set has it whole"
                                                  : reason + "; " + no_older->second});
}

// Removes what is of no more use, or keeps it for a second run.
void Recovery::settle() {
    settle_damage();
    m_result.logs_end_early = m_journal.log_folder_lost;
    m_result.logs_end = m_journal.logs_end;
    if (m_request.leaves_journal)
        return;
    strike_what_is_in_place();
    bool waits = std::any_of(m_result.databases.begin(), m_result.databases.end(),
                             [](const DatabaseRecovery& database) {
                                 return database.outcome == RecoveryOutcome::waiting;
                             });
    if (waits) {
        m_result.pending_folder = m_journal.pending_folder;
        return;
    }
    for (const std::string& warning : abandon_recovery(m_journal))
        m_result.warnings.push_back(warning);
    m_file.remove();
    std::erase_if(m_result.restored, [this](const std::string& path) {
        return std::any_of(m_journal.extents.begin(), m_journal.extents.end(),
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
