#include "client/recovery_operation.h"

#include "client/database_arguments.h"
#include "client/error.h"
#include "client/interrupt.h"
#include "client/output.h"
#include "client/recovery_probe.h"
#include "client/recovery_restores.h"
#include "client/safe_paths.h"
#include "client/store/digest.h"
#include "client/temporary_directory.h"
#include "client/text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

// Reasons that the module gives, and what begins another.
constexpr std::string_view failed_elsewhere = "the recovery failed at another database";
constexpr std::string_view unknown_to_log = "the transaction log does not know it";

constexpr std::size_t read_size = std::size_t{1} << 20;

bool is_template(const std::string& path) {
    constexpr std::string_view extension = ".ntf";
    return path.size() > extension.size() &&
           ::strcasecmp(path.c_str() + path.size() - extension.size(), extension.data()) == 0;
}

// Whether a file has this content.
bool has_content(const std::string& path, const std::string& object) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    Sha256 digest;
    std::vector<std::byte> buffer(read_size);
    for (;;) {
        throw_if_interrupted();
        ssize_t got = read_up_to(file.get(), buffer);
        if (got < 0)
            return false;
        if (got == 0)
            return digest.finish() == object;
        digest.update({buffer.data(), static_cast<std::size_t>(got)});
    }
}

class Recovery {
  public:
    Recovery(const OperationContext& context, RecoveryRequest request,
             const RecoveryJournalFile& file, const std::optional<RecoveryJournal>& journal)
        : m_context(context), m_request(std::move(request)), m_file(file) {
        if (journal) {
            m_journal = *journal;
            m_resumed = true;
        }
        m_request.log_folder_was_lost = m_journal.log_folder_lost;
        if (!m_journal.pending_folder.empty() && exists(m_journal.pending_folder))
            m_request.tmp_dir = folder_of(m_journal.pending_folder); // whatever it is by now
    }
    RecoveryResult run();

  private:
    bool in_place() const { return m_plan.into.empty(); }
    std::string copy_of(const RecoveringDatabase& database) const;
    DatabaseRecovery& report(const RecoveringDatabase& database, RecoveryOutcome outcome,
                             const std::string& reason = {});
    void forget_round();
    void settle_what_is_done();
    void find_left_offline();
    bool was_lost(const std::string& path) const;
    bool logs_are_whole();
    void require_what_is_needed();
    void find_whole_copies();
    void create_pending_folder();
    void create_data_directory();
    void write_journal();
    void list_databases();
    bool restore_from_store();
    bool take_result(RestoreResult result, const RestorePlan& plan);
    bool check_only_its_set();
    void note_damage(const PlannedItem& planned, const std::string& reason);
    void roll_forward();
    std::vector<const RecoveringDatabase*>
    roll_forward_once(const std::vector<const RecoveringDatabase*>& databases);
    std::vector<std::string> variables(const std::vector<const RecoveringDatabase*>& databases,
                                       const std::string& temporary) const;
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
    std::map<std::string, std::string> m_left_offline; // by path: why the server cannot open it
    bool m_asked_for_offline = false;
    RecoveryResult m_result;
};

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
                         database.set_ended, outcome, reason});
}

RecoveryResult Recovery::run() {
    for (;;) {
        m_plan = make_recovery_plan(m_context.store, m_context.ini, m_request);
        if (m_resumed)
            settle_what_is_done();
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

// What an earlier run of the same recovery put in place is left alone: its users may have gone on
// with it. Not so one that it could not bring online any more, as nobody could.
void Recovery::settle_what_is_done() {
    find_left_offline();
    std::erase_if(m_plan.databases, [this](const RecoveringDatabase& database) {
        const std::string& path = database.planned.item.path;
        if (!m_journal.was_put_in_place(path) || m_left_offline.contains(path))
            return false;
        if (m_reported.contains(path))
            return true;
        report(database, RecoveryOutcome::in_place);
        if (was_lost(path)) // a run that was killed had no time for that
            give_owner_and_mode(database);
        return true;
    });
}

// The module deletes a copy and then brings its database online: a run that was killed in between
// leaves one that looks done.
void Recovery::find_left_offline() {
    if (m_asked_for_offline)
        return;
    m_asked_for_offline = true;
    std::vector<std::string> paths;
    for (const RecoveringDatabase& database : m_plan.databases)
        if (m_journal.was_put_in_place(database.planned.item.path) && database.planned.existing)
            paths.push_back(database.planned.item.path);
    m_left_offline = find_unopenable(m_context, paths);
    for (const auto& [path, reason] : m_left_offline)
        m_result.warnings.push_back(path +
                                    ": was put in place by the earlier run, but the server cannot "
                                    "open it (" +
                                    reason + "): it is recovered again");
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
        if (database.only_its_set.empty() && has_content(copy_of(database), item.object))
            m_whole[item.path] = item.object;
    }
}

void Recovery::create_pending_folder() {
    if (!in_place() || (!m_journal.pending_folder.empty() && exists(m_journal.pending_folder)))
        return;
    m_journal.pending_folder = make_pending_folder(m_request.tmp_dir, m_plan.data_directory);
}

// A new disk in the place of the lost one is empty, or not even that.
void Recovery::create_data_directory() {
    if (!m_plan.data_directory_missing || !in_place())
        return;
    const std::string& directory = m_plan.data_directory;
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
    if (m_plan.server_logs.missing && !m_plan.logs.restore.empty()) {
        m_journal.log_folder_lost = m_request.log_folder_was_lost = true;
        if (m_plan.logs.ends)
            m_journal.logs_end = m_plan.logs.ends;
    }
    list_databases();
    // Before they are there: what is not there does no harm when it is to be removed.
    if (!m_plan.server_logs.missing)
        for (const StoredLog& log : m_plan.logs.restore)
            if (std::string target = log_target(m_plan, log);
                std::find(m_journal.extents.begin(), m_journal.extents.end(), target) ==
                m_journal.extents.end())
                m_journal.extents.push_back(target);
    m_file.write(m_journal);
    m_began = true;
}

// Those that are still to be put in their places. A copy is named when it is there: when it is gone
// later, it is in its place.
void Recovery::list_databases() {
    if (!in_place())
        return;
    std::vector<PendingDatabase> databases;
    for (const RecoveringDatabase& database : m_plan.databases) {
        const PlannedItem& planned = database.planned;
        std::string copy = copy_of(database);
        if (!database.only_its_set.empty() || !exists(copy))
            copy.clear();
        databases.push_back({planned.item.path, copy,
                             was_lost(planned.item.path) || !planned.existing.has_value()});
    }
    for (const DatabaseRecovery& done : m_result.databases)
        if (done.outcome == RecoveryOutcome::failed)
            databases.push_back({done.path, {}, was_lost(done.path)});
    m_journal.databases = std::move(databases);
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
    m_journal.recovering = true;
    list_databases();
    m_file.write(m_journal);
    while (!databases.empty()) {
        throw_if_interrupted();
        databases = roll_forward_once(databases);
        strike_what_is_in_place();
    }
}

std::vector<std::string>
Recovery::variables(const std::vector<const RecoveringDatabase*>& databases,
                    const std::string& temporary) const {
    std::vector<std::string> variables = {"TMP_DIR=" + temporary, "RECOVERY=YES",
                                          "ROLLFORWARD=" + rollforward_value(m_plan.to)};
    if (m_plan.new_dbiid)
        variables.emplace_back("NEWDBIID=YES");
    if (!in_place())
        variables.push_back("INFO=" + relocation_info(m_plan.into, false));
    for (const RecoveringDatabase* database : databases)
        variables.push_back("DATABASE=QRTLN:" + escape_last_component(database->planned.item.path));
    return variables;
}

// Returns those that are to be tried again, without one that made the whole recovery fail.
std::vector<const RecoveringDatabase*>
Recovery::roll_forward_once(const std::vector<const RecoveringDatabase*>& databases) {
    std::vector<std::string> targets;
    for (const RecoveringDatabase* database : databases)
        targets.push_back(database->planned.target);
    ToldOutcomes told(targets);
    std::optional<TemporaryDirectory> temporary;
    if (!in_place())
        temporary.emplace(absolute_path(m_request.tmp_dir), m_plan.data_directory);
    ModuleSession session(m_context, [&](const std::string& line) { told.read(line); });
    int status = session.init(
        DB_TYPE_RST, DB_LEVEL_FULL,
        variables(databases, temporary ? temporary->path() : m_journal.pending_folder));
    std::string reason = status == DB_NUM_I_COMPLETE ? "" : session.reason();

    std::vector<const RecoveringDatabase*> again;
    bool one_failed = false;
    for (const RecoveringDatabase* database : databases) {
        std::optional<ToldOutcomes::Told> outcome = told.of(database->planned.target);
        bool waits = in_place() && exists(copy_of(*database));
        if (!outcome) {
            report(*database,
                   !in_place() ? RecoveryOutcome::failed
                   : waits     ? RecoveryOutcome::waiting
                               : RecoveryOutcome::uncertain,
                   reason.empty() ? "the module did not tell what became of it" : reason);
        } else if (outcome->outcome != RecoveryOutcome::failed) {
            report(*database, outcome->outcome, outcome->reason);
            give_owner_and_mode(*database);
        } else if (outcome->reason == failed_elsewhere) {
            again.push_back(database);
        } else if (outcome->reason.starts_with(unknown_to_log)) {
            report(*database, RecoveryOutcome::only_its_set,
                   is_template(database->planned.item.path) ? template_reason : outcome->reason);
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
        item.mtime_ns =
            status.st_mtim.tv_sec * std::int64_t{1'000'000'000} + status.st_mtim.tv_nsec;
        problem = apply_metadata(file.get(), item);
    }
    if (!problem.empty())
        m_result.warnings.push_back(planned.target + ": " + problem);
}

void Recovery::strike_what_is_in_place() {
    std::map<std::string, RecoveryOutcome> outcomes;
    for (const DatabaseRecovery& database : m_result.databases)
        outcomes[database.path] = database.outcome;
    for (PendingDatabase& pending : m_journal.databases)
        if (auto outcome = outcomes.find(pending.path);
            outcome != outcomes.end() && outcome->second == RecoveryOutcome::failed)
            pending.copy.clear();
    std::erase_if(m_journal.databases, [&](const PendingDatabase& pending) {
        auto outcome = outcomes.find(pending.path);
        return outcome != outcomes.end() && outcome->second != RecoveryOutcome::waiting &&
               outcome->second != RecoveryOutcome::failed;
    });
    m_file.write(m_journal);
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
        if (auto set = sets.find(path); set != sets.end())
            m_result.replaced.push_back(
                {path, reason + "; the copy of the set " + set->second + " was taken"});
        else if (!m_reported.contains(path))
            m_result.damaged.push_back({path, reason});
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
    const std::vector<std::string>& gone = m_journal.extents; // came back for the recovery alone
    std::erase_if(m_result.restored, [&](const std::string& path) {
        return std::find(gone.begin(), gone.end(), path) != gone.end();
    });
}

} // namespace

RecoveryResult run_recovery(const OperationContext& context, RecoveryRequest request,
                            const RecoveryJournalFile& file,
                            const std::optional<RecoveryJournal>& journal) {
    return Recovery(context, std::move(request), file, journal).run();
}

} // namespace qrtln
