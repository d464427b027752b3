#include "client/recovery/plan.h"

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/notes_ini.h"
#include "client/domino/point_in_time.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_positions.h"
#include "client/sets/manifest.h"
#include "client/store/file_digest.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <map>
#include <strings.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

// Where notes.ini says, else where the newest stored log was.
ServerLogs look_at_logs(const NotesIni& ini, const StoredLogs& stored) {
    std::string directory = log_directory(ini);
    if (directory.empty() && !stored.logs.empty())
        directory = folder_of(stored.logs.back().item.path);
    ServerLogs logs = look_at_server_logs(directory);
    compare_with_stored(logs, stored, throw_if_interrupted);
    return logs;
}

class RecoveryPlanner {
  public:
    RecoveryPlanner(Store& store, const NotesIni& ini, const RecoveryRequest& request,
                    const RecoverySituation& situation)
        : m_store(store), m_ini(ini), m_request(request), m_situation(situation) {}
    RecoveryPlan run();

  private:
    RestorePlan plan_items();
    void take_database(PlannedItem planned);
    void compare_instances();
    bool keep_in_place(RecoveringDatabase& database);
    bool reaches_no_end(const RecoveringDatabase& database);
    std::string reason_against(RecoveringDatabase& database);
    bool is_destroyed(const PlannedItem& planned) const;
    void refuse_what_reaches_others();
    bool is_restored(const std::string& path) const;
    const CatalogueEntry& set(const std::string& name);
    void plan_logs();
    void require_that_logs_are_lost();
    void check_log_folder() const;
    std::optional<std::int64_t> find_reachable(std::optional<std::int64_t> moment) const;

    Store& m_store;
    const NotesIni& m_ini;
    const RecoveryRequest& m_request;
    const RecoverySituation& m_situation;
    SavedCopies m_copies;
    StoredLogs m_stored;
    std::map<std::string, CatalogueEntry> m_sets;
    RecoveryPlan m_plan;
};

RecoveryPlan RecoveryPlanner::run() {
    m_plan.data_directory = m_ini.data_directory;
    struct stat status {};
    m_plan.data_directory_missing = ::stat(m_ini.data_directory.c_str(), &status) != 0;
    m_plan.to = m_request.to;
    m_plan.new_dbiid = m_request.new_dbiid;
    m_stored = load_stored_logs(m_store, m_ini.sets, m_request.selection.damaged);

    RestorePlan items = plan_items();
    m_plan.into = items.to;
    m_plan.warnings = std::move(items.warnings);
    m_plan.others = items;
    m_plan.others.items.clear();
    for (PlannedItem& planned : items.items) {
        bool log = planned.item.kind == ItemKind::log || planned.item.kind == ItemKind::log_control;
        if (log || (m_request.databases_only && planned.item.kind != ItemKind::database))
            continue;
        if (planned.action == RestoreAction::refuse)
            m_plan.refused.push_back(std::move(planned));
        else if (planned.item.kind == ItemKind::database)
            take_database(std::move(planned));
        else
            m_plan.others.items.push_back(std::move(planned));
    }
    m_plan.server_logs = look_at_logs(m_ini, m_stored);
    bool unfinished = m_request.log_folder_was_lost && !m_plan.server_logs.has_control;
    m_plan.server_logs.missing = m_plan.server_logs.missing || unfinished;
    compare_instances();
    refuse_what_reaches_others();
    plan_logs();
    if (m_plan.logs.missing)
        m_plan.logs.missing->reachable = find_reachable(m_plan.logs.missing->reachable);
    m_plan.room = recovery_room(m_plan, m_request.tmp_dir, {});
    return std::move(m_plan);
}

// The latest moment, up to the given one, that this very request can be recovered to: older sets
// may have to be taken for it, whose logs have gaps of their own.
std::optional<std::int64_t>
RecoveryPlanner::find_reachable(std::optional<std::int64_t> moment) const {
    if (m_request.searches_reachable)
        return moment;
    constexpr int attempts = 100; // each goes further back
    for (int attempt = 0; moment && attempt < attempts; ++attempt) {
        RecoveryRequest trial = m_request;
        trial.searches_reachable = true;
        trial.to = moment = shown_once_until(*moment); // the server is told local time
        RecoveryPlan plan;
        try {
            plan = RecoveryPlanner(m_store, m_ini, trial, m_situation).run();
        } catch (const ClientError&) {
            throw_if_interrupted();
            return std::nullopt; // no set is that old
        }
        if (!plan.logs.missing)
            return moment;
        std::optional<std::int64_t> earlier = plan.logs.missing->reachable;
        moment = earlier && *earlier < *moment ? earlier : std::nullopt;
    }
    return std::nullopt;
}

// A database must have been saved before the time that it is to be recovered to.
RestorePlan RecoveryPlanner::plan_items() {
    RestoreRequest request;
    request.selection = m_request.selection;
    request.selection.ended_before = m_request.to;
    request.selection.older_for_left_out = !m_request.selection.all;
    request.to = m_request.into;
    request.recovery = true;
    request.tmp_dir = m_request.tmp_dir;
    return make_restore_plan(m_store, m_ini, request);
}

const CatalogueEntry& RecoveryPlanner::set(const std::string& name) {
    auto [entry, added] = m_sets.try_emplace(name);
    if (added)
        entry->second = load_set(m_store, name);
    return entry->second;
}

void RecoveryPlanner::take_database(PlannedItem planned) {
    RecoveringDatabase database;
    if (const std::optional<Manifest>& manifest = set(planned.set).manifest) {
        database.set_started = manifest->started;
        database.set_ended = complete_at(*manifest);
    }
    if (is_not_logged(planned.item))
        database.only_its_set = not_logged_reason;
    else if (!m_ini.logging) // a set of an earlier release does not tell what no log covers
        database.only_its_set = planned.item.dbiid.empty() && is_template(planned.item.path)
                                    ? template_reason
                                    : logging_off_reason;
    else if (!has_newest_archive(m_stored, planned.set))
        database.only_its_set = "the server began a new transaction log after its backup";
    database.planned = std::move(planned);
    m_plan.databases.push_back(std::move(database));
}

// What the live databases are, and what older copies lead to, decides which may be replaced.
void RecoveryPlanner::compare_instances() {
    std::set<std::string> paths;
    std::vector<std::string> live;
    for (const RecoveringDatabase& database : m_plan.databases) {
        paths.insert(database.planned.item.path);
        if (m_plan.into.empty() ? database.planned.existing.has_value()
                                : exists(database.planned.item.path))
            live.push_back(database.planned.item.path);
    }
    m_copies = load_saved_copies(m_store, m_ini.sets, paths);
    // The server's library would begin a new log where its own is lost.
    if (m_situation.live != nullptr && !m_plan.server_logs.missing)
        m_situation.live->ask(live);
    std::vector<RecoveringDatabase> databases;
    std::swap(databases, m_plan.databases);
    for (RecoveringDatabase& database : databases) {
        if (keep_in_place(database) || reaches_no_end(database))
            continue;
        database.planned.reason = reason_against(database);
        if (database.planned.reason.empty())
            m_plan.databases.push_back(std::move(database));
        else
            m_plan.refused.push_back(std::move(database.planned));
    }
}

// What an earlier run of the same recovery put in place is left alone: its users may have gone on
// with it. Not so one that it could not bring online any more, as nobody could.
bool RecoveryPlanner::keep_in_place(RecoveringDatabase& database) {
    const PlannedItem& planned = database.planned;
    if (m_situation.journal == nullptr || !planned.existing ||
        !m_situation.journal->was_put_in_place(planned.item.path))
        return false;
    const LiveDatabase* live =
        m_situation.live == nullptr ? nullptr : m_situation.live->find(planned.item.path);
    if (live != nullptr && live->state == LiveDatabase::State::unopenable) {
        m_plan.warnings.push_back(planned.item.path +
                                  ": was put in place by the earlier run, but the server cannot "
                                  "open it (" +
                                  live->reason + "): it is recovered again");
        return false;
    }
    m_plan.in_place.push_back(std::move(database));
    return true;
}

// An older copy takes the place of a damaged one only where it leads to the same end.
bool RecoveryPlanner::reaches_no_end(const RecoveringDatabase& database) {
    const std::string& path = database.planned.item.path;
    std::set<std::string> damaged;
    for (const auto& [damaged_path, object] : m_request.selection.damaged)
        if (damaged_path == path)
            damaged.insert(object);
    if (damaged.empty())
        return false;
    std::string reason = reason_against_older(m_copies[path], database.planned.set, damaged);
    if (!reason.empty())
        m_plan.no_whole_copy[path] = reason;
    return !reason.empty();
}

// The module looks for a database in a folder with a "*" in its name in the folders below, too, and
// would roll forward what an earlier recovery wrote there.
void RecoveryPlanner::refuse_what_reaches_others() {
    namespace fs = std::filesystem;
    std::set<std::string> targets;
    for (const RecoveringDatabase& database : m_plan.databases)
        targets.insert(database.planned.target);
    std::erase_if(m_plan.databases, [&](RecoveringDatabase& database) {
        PlannedItem& planned = database.planned;
        if (m_plan.into.empty() || folder_of(planned.item.path).find('*') == std::string::npos)
            return false;
        std::error_code error;
        fs::recursive_directory_iterator entry(folder_of(planned.target), error);
        for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error))
            if (entry->path().filename() == name_of(planned.target) &&
                !targets.contains(entry->path().string()))
                break;
        if (error || entry == fs::recursive_directory_iterator())
            return false;
        planned.reason = "its folder has a \"*\" in its name, and " + entry->path().string() +
                         " would be rolled forward with it: name another folder with --into";
        m_plan.refused.push_back(std::move(planned));
        return true;
    });
}

bool RecoveryPlanner::is_restored(const std::string& path) const {
    if (m_situation.owed == nullptr || !m_situation.owed->is_restored(m_ini.data_directory, path))
        return false;
    // An earlier run of this recovery said so itself, and did not come to it.
    const PendingDatabase* pending =
        m_situation.journal == nullptr ? nullptr : m_situation.journal->entry_of(path);
    return pending == nullptr || !pending->owed;
}

// Settles how far the database can be recovered. Returns why its live one must not be replaced;
// empty when it may.
std::string RecoveryPlanner::reason_against(RecoveringDatabase& database) {
    if (m_request.databases_only)
        return {};
    const PlannedItem& planned = database.planned;
    const std::string& path = planned.item.path;
    const std::vector<SavedCopy>& copies = m_copies[path];
    const LiveDatabase* live = m_situation.live == nullptr ? nullptr : m_situation.live->find(path);
    bool restored = is_restored(path);
    bool in_place = m_plan.into.empty();
    if (restored && live != nullptr && live->state == LiveDatabase::State::not_logged)
        restored = !file_has_content(path, copies.back().object, throw_if_interrupted);
    std::string keep;
    if (live != nullptr || (in_place && planned.existing))
        keep = reason_to_keep(live, restored, copies);
    if (in_place && !keep.empty() && !m_request.replace_live)
        return keep;
    if (live != nullptr && live->state == LiveDatabase::State::logged &&
        database.only_its_set == logging_off_reason)
        database.only_its_set.clear(); // the server knows better than its file
    bool open = live != nullptr && live->state != LiveDatabase::State::unopenable;
    database.same_instance = open && keep.empty();
    database.same_until = same_instance_until(copies, planned.set);
    database.holds_more = in_place && !keep.empty();
    bool rolled_forward = database.only_its_set.empty();
    if (rolled_forward && m_request.to)
        database.doubt = reason_for_doubt(copies, planned.set, *m_request.to, live, restored);
    else if (rolled_forward && !open && restored)
        database.doubt =
            "a restore or recovery put it in place, or began to, since its newest copy, "
            "and it was not saved after that";
    else if (rolled_forward && !in_place && !keep.empty())
        database.doubt = "the live database is another instance than its newest saved copy, or was "
                         "restored: what it holds since then is in no set";
    bool unasked = planned.existing && m_situation.live != nullptr && live == nullptr;
    database.owed_then = in_place && (m_request.to || m_request.new_dbiid || !keep.empty() ||
                                      !rolled_forward || unasked);
    database.set_aside = in_place && live != nullptr && !open && is_destroyed(planned);
    return {};
}

// The server takes a database offline to replace it, and cannot do that with what is none.
bool RecoveryPlanner::is_destroyed(const PlannedItem& planned) const {
    constexpr std::size_t mark = 4; // bytes that every database of this server begins with
    struct Enough {};
    if (!planned.existing || !planned.used_by.empty())
        return false;
    if (planned.existing->st_size == 0)
        return true;
    std::string problem;
    FileDescriptor file =
        SafeFolder(planned.root).open_file(path_below(planned.target, planned.root), problem);
    std::array<std::byte, mark> there{};
    if (!file || read_up_to(file.get(), there) < 0)
        return false;
    std::vector<std::byte> saved;
    try {
        (void)m_store.read_object(planned.item.object, [&](Bytes bytes) {
            saved.insert(saved.end(), bytes.begin(), bytes.end());
            if (saved.size() >= mark)
                throw Enough{};
        });
    } catch (const Enough&) {
        return !std::equal(there.begin(), there.end(), saved.begin());
    }
    return false; // damaged, or no database
}

void RecoveryPlanner::plan_logs() {
    RecoveryLogNeeds needs;
    needs.to = m_request.to;
    for (const RecoveringDatabase& database : m_plan.databases)
        if (database.only_its_set.empty() &&
            (needs.oldest_set.empty() || database.planned.set < needs.oldest_set))
            needs.oldest_set = database.planned.set;
    if (needs.oldest_set.empty())
        return;
    m_plan.logs = find_recovery_logs(m_stored, m_plan.server_logs, needs);
    if (m_plan.server_logs.missing && !m_plan.logs.restore.empty()) {
        check_log_folder();
        if (!m_plan.logs.control)
            m_plan.warnings.emplace_back("no set has the log control file whole: the server may "
                                         "not take the transaction logs");
    }
    if (m_plan.server_logs.missing && !m_plan.logs.missing && !m_plan.logs.restore.empty())
        m_plan.warnings.push_back(
            "the folder of the transaction logs, " + for_terminal(m_plan.server_logs.directory) +
            ", is lost: what was committed after the newest set is not in any log" +
            (m_plan.logs.ends ? " (that is after " + utc_time(*m_plan.logs.ends) + ")" : ""));
    if (!m_plan.server_logs.names_tell && !m_plan.server_logs.missing && !m_plan.logs.missing)
        m_plan.warnings.push_back(
            "the files in " + for_terminal(m_plan.server_logs.directory) +
            " do not tell by their names which transaction logs they hold (the server uses them "
            "again): whether it has those after the stored ones, it says itself" +
            (m_plan.logs.renamed ? "; logs whose names others have by now come back under new ones"
                                 : ""));
    require_that_logs_are_lost();
}

// A disk that is not mounted looks like a lost one, and live databases would lose what only the
// logs on it have.
void RecoveryPlanner::require_that_logs_are_lost() {
    if (!m_plan.server_logs.missing || m_plan.logs.missing || m_request.logs_lost ||
        m_request.databases_only || !m_plan.into.empty())
        return;
    auto replaced =
        std::find_if(m_plan.databases.begin(), m_plan.databases.end(), [&](const auto& database) {
            const std::string& path = database.planned.item.path;
            const PendingDatabase* pending =
                m_situation.journal == nullptr ? nullptr : m_situation.journal->entry_of(path);
            return database.only_its_set.empty() && database.planned.existing &&
                   !(pending != nullptr && pending->lost);
        });
    if (replaced == m_plan.databases.end())
        return;
    m_plan.logs.missing = MissingLogs{
        0, 0,
        "the folder of the transaction logs, " + for_terminal(m_plan.server_logs.directory) +
            ", is missing or empty, and live databases such as " +
            for_terminal(replaced->planned.target) + " would lose what is in no stored log",
        "mount the disk of the logs; if they are really lost, --logs-lost recovers to the end of "
        "the stored ones",
        std::nullopt};
}

// Whether what is lost may come back where it was.
void RecoveryPlanner::check_log_folder() const {
    const std::string& folder = m_plan.server_logs.directory;
    struct stat status {};
    if (m_request.keeps_log_folder)
        throw ClientError(ExitCode::logs_missing,
                          "the folder of the transaction logs, " + for_terminal(folder) +
                              ", is lost",
                          "`qrtln recover` brings it back from the store");
    if (!is_below(folder, m_ini.data_directory) && ::stat(folder_of(folder).c_str(), &status) != 0)
        throw ClientError(ExitCode::failed,
                          "the folder of the transaction logs, " + for_terminal(folder) +
                              ", is lost, and so is the one above it: nothing was touched",
                          "create it, or mount its disk");
}

std::string reach_text(const RecoveryPlan& plan, const RecoveringDatabase& database) {
    if (!database.only_its_set.empty())
        return "its set only: " + database.only_its_set;
    if (plan.logs.missing)
        return "no moment: transaction logs are missing";
    bool ends_early = plan.server_logs.missing && !plan.logs.restore.empty();
    std::string end = plan.to          ? utc_time(*plan.to)
                      : !ends_early    ? "the end of the logs"
                      : plan.logs.ends ? "the end of the stored logs, " + utc_time(*plan.logs.ends)
                                       : "the end of the stored logs";
    return end + (database.doubt.empty() ? "" : ", perhaps: " + database.doubt);
}

std::string log_target(const ServerLogs& server, const StoredLog& log) {
    return server.directory + "/" +
           (log.target_name.empty() ? name_of(log.item.path) : log.target_name);
}

std::string logs_text(const RecoveryLogs& logs, const ServerLogs& server, bool to_a_moment) {
    if (logs.missing) {
        const std::optional<std::int64_t>& reachable = logs.missing->reachable;
        return describe(*logs.missing) +
               (reachable ? "; the latest time that can be reached is " + utc_time(*reachable)
                          : "") +
               "\n";
    }
    if (!logs.any_stored)
        return "no set holds transaction logs: those that the server has are replayed\n";
    std::string text = "transaction logs " + std::to_string(logs.first) + " to " +
                       std::to_string(logs.last) + (to_a_moment ? "" : " and what follows") + ", " +
                       std::to_string(logs.restore.size()) +
                       " of them from the store, the others are on the server";
    for (const StoredLog& log : logs.restore)
        text += "\n  " + for_terminal(log_target(server, log)) + " from " + for_terminal(log.set);
    return text + "\n";
}

nlohmann::json logs_json(const RecoveryLogs& logs, const ServerLogs& server) {
    nlohmann::json restored = nlohmann::json::array();
    for (const StoredLog& log : logs.restore)
        restored.push_back({{"path", printable_utf8(log_target(server, log))},
                            {"number", log.item.log->number},
                            {"set", log.set}});
    nlohmann::json on_server = nlohmann::json::array();
    for (const auto& [number, time] : server.last_used)
        if (!LogPositions::precedes(number, logs.first) &&
            !LogPositions::precedes(logs.last, number))
            on_server.push_back(number);
    nlohmann::json missing;
    if (logs.missing) {
        missing = {{"text", describe(*logs.missing)}, {"reachable", nullptr}};
        if (logs.missing->reachable)
            missing["reachable"] = utc_time(*logs.missing->reachable);
    }
    return {{"first", logs.first},
            {"last", logs.last},
            {"restored", restored},
            {"on_server", on_server},
            {"missing", missing}};
}

} // namespace

bool is_template(const std::string& path) {
    constexpr std::string_view extension = ".ntf";
    return path.size() > extension.size() &&
           ::strcasecmp(path.c_str() + path.size() - extension.size(), extension.data()) == 0;
}

// Copies and originals are there at the same time, and so are the logs.
std::vector<RoomNeeded> recovery_room(const RecoveryPlan& plan, const std::string& tmp_dir,
                                      const std::map<std::string, std::string>& whole) {
    RoomCount rooms;
    for (const RecoveringDatabase& database : plan.databases) {
        const PlannedItem& planned = database.planned;
        std::uint64_t old = database.set_aside ? 0 : occupied_bytes(planned.existing);
        std::uint64_t growth = planned.item.size > old ? planned.item.size - old : 0;
        bool waits = whole.contains(planned.item.path);
        if (plan.into.empty())
            rooms.at(absolute_path(tmp_dir)).needed += waits ? 0 : planned.item.size;
        if (plan.into.empty())
            rooms.at(folder_of(planned.target)).needed += growth;
        else if (!waits) // an old one is there until the new one is whole
            rooms.at(folder_of(planned.target)).needed += planned.item.size;
    }
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            rooms.at(folder_of(planned.target)).needed += planned.item.size;
    for (const StoredLog& log : plan.logs.restore)
        rooms.at(folder_of(log_target(plan, log))).needed += log.item.size;
    return rooms.list();
}

std::string log_target(const RecoveryPlan& plan, const StoredLog& log) {
    return log_target(plan.server_logs, log);
}

void require_logs(const RecoveryPlan& plan) {
    if (!plan.logs.missing)
        return;
    const MissingLogs& missing = *plan.logs.missing;
    std::string reachable;
    std::string hint;
    if (!missing.reason.empty())
        hint = missing.hint;
    else if (missing.reachable) {
        std::string time = utc_time(*missing.reachable);
        reachable = "; the latest time that can be reached is " + time;
        hint = "--to " + time + " recovers to that time; `qrtln verify` tells about damaged logs";
    } else {
        hint = "the databases can be restored as they are in their sets: `qrtln restore "
               "--activate`; `qrtln verify` tells about damaged logs";
    }
    throw ClientError(
        ExitCode::logs_missing,
        "cannot recover: " + describe(missing) + reachable + ": no database was touched", hint);
}

std::string plan_text(const RecoveryPlan& plan) {
    Table table({"SIZE ", "SET", "DATABASE", "RECOVERED TO", "WRITTEN TO", "THERE NOW"});
    for (const RecoveringDatabase& database : plan.databases)
        table.add({human_bytes(database.planned.item.size), for_terminal(database.planned.set),
                   for_terminal(database.planned.item.path), reach_text(plan, database),
                   for_terminal(database.planned.target),
                   existing_text(database.planned) +
                       (database.set_aside ? ", no database any more: is set aside" : "") +
                       (database.holds_more ? ", although it holds what no set leads to" : "")});
    std::string text = table.text();
    for (const PlannedItem& planned : plan.refused)
        text += "not recovered: " + for_terminal(planned.item.path) + ": " +
                for_terminal(planned.reason) + "\n";
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            text += "missing, comes back from " + for_terminal(planned.set) + ": " +
                    for_terminal(planned.target) + "\n";
    bool rolls_forward = std::any_of(
        plan.databases.begin(), plan.databases.end(),
        [](const RecoveringDatabase& database) { return database.only_its_set.empty(); });
    if (rolls_forward)
        text += logs_text(plan.logs, plan.server_logs, plan.to.has_value());
    return text + room_text(plan.room);
}

nlohmann::json plan_json(const RecoveryPlan& plan) {
    nlohmann::json databases = nlohmann::json::array();
    for (const RecoveringDatabase& database : plan.databases) {
        nlohmann::json entry = {{"path", printable_utf8(database.planned.item.path)},
                                {"set", database.planned.set},
                                {"size", database.planned.item.size},
                                {"target", printable_utf8(database.planned.target)},
                                {"rolled_forward", database.only_its_set.empty()},
                                {"exists", database.planned.existing.has_value()},
                                {"used_by", printable_utf8(database.planned.used_by)}};
        if (!database.only_its_set.empty())
            entry["reason"] = database.only_its_set;
        if (!database.doubt.empty())
            entry["doubt"] = database.doubt;
        if (database.holds_more)
            entry["holds_more"] = true;
        if (database.set_aside)
            entry["set_aside"] = true;
        databases.push_back(std::move(entry));
    }
    nlohmann::json files = nlohmann::json::array();
    for (const PlannedItem& planned : plan.others.items)
        if (planned.action == RestoreAction::write)
            files.push_back(
                {{"path", printable_utf8(planned.target)}, {"set", printable_utf8(planned.set)}});
    nlohmann::json refused = nlohmann::json::array();
    for (const PlannedItem& planned : plan.refused)
        refused.push_back({{"path", printable_utf8(planned.item.path)},
                           {"reason", printable_utf8(planned.reason)}});
    return {
        {"data_directory", printable_utf8(plan.data_directory)},
        {"to", plan.to ? nlohmann::json(utc_time(*plan.to)) : nlohmann::json()},
        {"into", plan.into.empty() ? nlohmann::json() : nlohmann::json(printable_utf8(plan.into))},
        {"new_dbiid", plan.new_dbiid},
        {"databases", databases},
        {"files", files},
        {"refused", refused},
        {"logs", logs_json(plan.logs, plan.server_logs)},
        {"room", room_json(plan.room)},
        {"warnings", plan.warnings}};
}

std::optional<LaterRecovery> plan_later_recovery(Store& store, const NotesIni& ini,
                                                 const std::vector<PlannedItem>& items) {
    RecoveryLogNeeds needs;
    for (const PlannedItem& planned : items) {
        bool placed =
            planned.action == RestoreAction::activate || planned.action == RestoreAction::place;
        if (placed && planned.item.kind == ItemKind::database && !is_not_logged(planned.item) &&
            (needs.oldest_set.empty() || planned.set < needs.oldest_set))
            needs.oldest_set = planned.set;
    }
    if (needs.oldest_set.empty())
        return std::nullopt;
    StoredLogs stored = load_stored_logs(store, ini.sets, {});
    LaterRecovery later;
    later.server_logs = look_at_logs(ini, stored);
    later.logs = find_recovery_logs(stored, later.server_logs, needs);
    return later;
}

std::string later_recovery_text(const LaterRecovery& later) {
    return "a recovery of these databases needs: " +
           logs_text(later.logs, later.server_logs, false);
}

nlohmann::json later_recovery_json(const LaterRecovery& later) {
    return logs_json(later.logs, later.server_logs);
}

RecoveryPlan make_recovery_plan(Store& store, const NotesIni& ini, const RecoveryRequest& request,
                                const RecoverySituation& situation) {
    return RecoveryPlanner(store, ini, request, situation).run();
}

} // namespace qrtln
