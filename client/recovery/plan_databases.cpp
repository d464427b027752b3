#include "client/recovery/plan_databases.h"

#include "client/base/file_descriptor.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/safe_folder.h"
#include "client/sets/item_content.h"
#include "client/sets/manifest.h"
#include "client/store/file_digest.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <set>
#include <vector>

namespace qrtln {

namespace {

// The first file of that name below the folder that is not one of these; empty for none.
std::string namesake_below(const std::string& folder, const std::string& name,
                           const std::set<std::string>& known) {
    namespace fs = std::filesystem;
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error))
        if (entry->path().filename() == name && !known.contains(entry->path().string()))
            return entry->path().string();
    return {};
}

} // namespace

std::string reason_for_only_its_set(const std::string& path, const CopyLogging& copy,
                                    const std::string& set, bool server_logs,
                                    const StoredLogs& stored) {
    if (copy.is_not_logged)
        return not_logged_reason;
    if (!server_logs) // a set of an earlier release does not tell what no log covers
        return !copy.has_dbiid && is_template(path) ? template_reason : logging_off_reason;
    return has_newest_archive(stored, set)
               ? ""
               : "the server began a new transaction log after its backup";
}

const CatalogueEntry& DatabasePlanner::set(const std::string& name) {
    auto [entry, added] = m_sets.try_emplace(name);
    if (added)
        entry->second = load_set(m_planning.store, name);
    return entry->second;
}

void DatabasePlanner::take(PlannedItem planned) {
    RecoveringDatabase database;
    if (const std::optional<Manifest>& manifest = set(planned.set).manifest) {
        database.set_started = manifest->started;
        database.set_ended = complete_at(*manifest);
    }
    database.only_its_set = reason_for_only_its_set(
        planned.item.path, {is_not_logged(planned.item), !planned.item.dbiid.empty()}, planned.set,
        m_planning.ini.logging, m_planning.stored_logs);
    database.planned = std::move(planned);
    m_plan.databases.push_back(std::move(database));
}

// What the live databases are, and what older copies lead to, decides which may be replaced.
void DatabasePlanner::compare_instances() {
    std::set<std::string> paths;
    std::vector<std::string> live;
    for (const RecoveringDatabase& database : m_plan.databases) {
        paths.insert(database.planned.item.path);
        if (m_plan.in_place() ? database.planned.existing.has_value()
                              : exists(database.planned.item.path))
            live.push_back(database.planned.item.path);
    }
    m_copies = load_saved_copies(m_planning.store, m_planning.ini.sets, paths);
    // The server's library would begin a new log where its own is lost.
    if (m_planning.situation.live != nullptr && !m_plan.server_logs.missing)
        m_planning.situation.live->ask(live);
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
bool DatabasePlanner::keep_in_place(RecoveringDatabase& database) {
    const std::string& path = database.planned.item.path;
    const RecoveryJournal* journal = m_planning.situation.journal;
    if (journal == nullptr || !database.planned.existing ||
        journal->state_of(path) != DatabaseState::in_place)
        return false;
    const LiveDatabase* live = m_planning.live(path);
    if (live != nullptr && live->state == LiveDatabase::State::unopenable) {
        m_plan.warnings.push_back(
            fmt::format("{}: was put in place by the earlier run, but the server cannot open it "
                        "({}): it is recovered again",
                        path, live->reason));
        return false;
    }
    m_plan.in_place_before.push_back(std::move(database));
    return true;
}

// An older copy takes the place of a damaged one only where it leads to the same end.
bool DatabasePlanner::reaches_no_end(const RecoveringDatabase& database) {
    const std::string& path = database.planned.item.path;
    std::set<std::string> damaged;
    for (const auto& [damaged_path, object] : m_planning.request.selection.damaged)
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
void DatabasePlanner::refuse_what_reaches_others() {
    std::set<std::string> targets;
    for (const RecoveringDatabase& database : m_plan.databases)
        targets.insert(database.planned.target);
    std::erase_if(m_plan.databases, [&](RecoveringDatabase& database) {
        PlannedItem& planned = database.planned;
        if (m_plan.in_place() || folder_of(planned.item.path).find('*') == std::string::npos)
            return false;
        std::string other =
            namesake_below(folder_of(planned.target), name_of(planned.target), targets);
        if (other.empty())
            return false;
        planned.reason = fmt::format("its folder has a \"*\" in its name, and {} would be rolled "
                                     "forward with it: name another folder with --into",
                                     other);
        m_plan.refused.push_back(std::move(planned));
        return true;
    });
}

bool DatabasePlanner::is_restored(const std::string& path) const {
    const OwedDatabases* owed = m_planning.situation.owed;
    if (owed == nullptr || !owed->is_restored(m_planning.ini.data_directory, path))
        return false;
    // An earlier run of this recovery said so itself, and did not come to it.
    const PendingDatabase* pending = m_planning.pending(path);
    return pending == nullptr || !pending->owed;
}

// Settles how far the database can be recovered. Returns why its live one must not be replaced;
// empty when it may.
std::string DatabasePlanner::reason_against(RecoveringDatabase& database) {
    if (m_planning.is_proof())
        return {};
    const std::string& path = database.planned.item.path;
    const std::vector<SavedCopy>& copies = m_copies[path];
    const LiveDatabase* live = m_planning.live(path);
    bool restored = is_restored(path);
    if (restored && live != nullptr && live->state == LiveDatabase::State::not_logged)
        restored = !file_has_content(path, copies.back().object, throw_if_interrupted);
    std::string keep;
    if (live != nullptr || (m_plan.in_place() && database.planned.existing))
        keep = reason_to_keep(live, restored, copies);
    if (m_plan.in_place() && !keep.empty() && !m_planning.request.replace_live)
        return keep;
    settle_reach(database, keep, restored);
    return {};
}

// `keep` is what the live database holds that no set leads to; `restored`: a restore put it in
// place, and it is not saved since.
void DatabasePlanner::settle_reach(RecoveringDatabase& database, const std::string& keep,
                                   bool restored) {
    const PlannedItem& planned = database.planned;
    const RecoveryRequest& request = m_planning.request;
    const std::vector<SavedCopy>& copies = m_copies[planned.item.path];
    const LiveDatabase* live = m_planning.live(planned.item.path);
    const bool in_place = m_plan.in_place();
    if (live != nullptr && live->state == LiveDatabase::State::logged &&
        database.only_its_set == logging_off_reason)
        database.only_its_set.clear(); // the server knows better than its file
    bool open = live != nullptr && live->state != LiveDatabase::State::unopenable;
    database.same_instance = open && keep.empty();
    database.same_until = same_instance_until(copies, planned.set);
    database.holds_more = in_place && !keep.empty();
    bool rolled_forward = database.only_its_set.empty();
    if (rolled_forward && request.to)
        database.doubt = reason_for_doubt(copies, planned.set, *request.to, live, restored);
    else if (rolled_forward && !open && restored)
        database.doubt =
            "a restore or recovery put it in place, or began to, since its newest copy, "
            "and it was not saved after that";
    else if (rolled_forward && !in_place && !keep.empty())
        database.doubt = "the live database is another instance than its newest saved copy, or was "
                         "restored: what it holds since then is in no set";
    bool unasked = planned.existing && m_planning.situation.live != nullptr && live == nullptr;
    database.owed_then = in_place && (request.to || request.new_dbiid || !keep.empty() ||
                                      !rolled_forward || unasked);
    database.set_aside = in_place && live != nullptr && !open && is_destroyed(planned);
}

// The server takes a database offline to replace it, and cannot do that with what is none.
bool DatabasePlanner::is_destroyed(const PlannedItem& planned) const {
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
        (void)read_item(m_planning.store, planned.item, [&](Bytes bytes) {
            saved.insert(saved.end(), bytes.begin(), bytes.end());
            if (saved.size() >= mark)
                throw Enough{};
        });
    } catch (const Enough&) {
        return !std::equal(there.begin(), there.end(), saved.begin());
    }
    return false; // damaged, or no database
}

} // namespace qrtln
