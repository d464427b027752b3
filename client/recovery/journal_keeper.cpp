#include "client/recovery/journal_keeper.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/recovery/leftovers.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

// Below the pending folder; copies have no names like those of the links in it.
constexpr const char* links_folder = "/qrtln-links";

} // namespace

std::string JournalKeeper::copy_of(const RecoveryPlan& plan,
                                   const RecoveringDatabase& database) const {
    const std::string& path = database.planned.item.path;
    return plan.in_place() ? m_journal.pending_folder + path.substr(plan.data_directory.size())
                           : database.planned.target;
}

bool JournalKeeper::was_lost(const std::string& path) const {
    const PendingDatabase* pending = m_journal.entry_of(path);
    return pending != nullptr && pending->lost;
}

// The server's own logs are lost, and the wanted end is not known to be in the stored ones.
bool JournalKeeper::ends_early() const {
    const std::optional<std::int64_t>& to = m_journal.to;
    return m_journal.log_folder_lost && !(to && m_journal.logs_end && *to <= *m_journal.logs_end);
}

std::string JournalKeeper::doubt_about(const RecoveringDatabase& database) const {
    if (!database.doubt.empty() || !ends_early())
        return database.doubt;
    return "the server's own transaction logs are lost: what was committed after the stored ones "
           "is in no log";
}

void JournalKeeper::note_in_place(const DoneDatabase& database) {
    if (m_journal.done_of(database.path) == nullptr)
        m_journal.done.push_back(database);
}

void JournalKeeper::begin_round(const RecoveryRequest& request, const RecoveryPlan& plan,
                                const std::vector<DatabaseRecovery>& told,
                                const OwedDatabases* owed) {
    m_journal.data_directory = plan.data_directory;
    m_journal.names = request.selection.names;
    m_journal.all = request.selection.all;
    m_journal.to = request.to;
    m_journal.into = request.into;
    m_journal.new_dbiid = request.new_dbiid;
    m_journal.replace_live = request.replace_live;
    m_journal.logs_lost = request.logs_lost;
    m_journal.from_server = request.from_server;
    m_journal.moved = request.moved;
    if (plan.server_logs.missing && !plan.logs.restore.empty()) {
        m_journal.log_folder_lost = true;
        if (plan.logs.ends)
            m_journal.logs_end = plan.logs.ends;
    }
    list_databases(plan, told, owed);
    list_extents(plan);
    m_file.write(m_journal);
    m_began = true;
}

// Before they are there: what is not there does no harm when it is to be removed.
void JournalKeeper::list_extents(const RecoveryPlan& plan) {
    if (plan.server_logs.missing)
        return;
    for (const StoredLog& log : plan.logs.restore) {
        PutBackLog extent{log_target(plan, log), log.item.object};
        std::erase_if(m_journal.extents,
                      [&](const PutBackLog& known) { return known.path == extent.path; });
        m_journal.extents.push_back(std::move(extent));
    }
}

PendingDatabase JournalKeeper::entry_for(const RecoveryPlan& plan,
                                         const RecoveringDatabase& database,
                                         const OwedDatabases* owed) const {
    const PlannedItem& planned = database.planned;
    const PendingDatabase* known = m_journal.entry_of(planned.item.path);
    PendingDatabase pending = known != nullptr ? *known : PendingDatabase{};
    pending.path = planned.item.path;
    pending.copy = copy_of(plan, database);
    pending.lost = pending.lost || !planned.existing.has_value();
    pending.doubt = doubt_about(database);
    pending.set = planned.set;
    if (!database.only_its_set.empty() || !exists(pending.copy))
        pending.copy.clear();
    // One that was there before this recovery tells of something else.
    pending.owed = pending.owed || ((database.owed_then || m_journal.log_folder_lost) &&
                                    !owed->is_restored(plan.data_directory, pending.path));
    return pending;
}

// Those that are still to be put in their places. A copy is named when it is there: when it is gone
// later, it was put in its place or cleaned away.
void JournalKeeper::list_databases(const RecoveryPlan& plan,
                                   const std::vector<DatabaseRecovery>& told,
                                   const OwedDatabases* owed) {
    if (!plan.in_place())
        return;
    std::vector<PendingDatabase> databases;
    for (const RecoveringDatabase& database : plan.databases)
        databases.push_back(entry_for(plan, database, owed));
    for (const DatabaseRecovery& done : told)
        if (done.outcome == RecoveryOutcome::failed)
            databases.push_back({.path = done.path, .copy = {}, .lost = was_lost(done.path)});
    m_journal.databases = std::move(databases);
    std::erase_if(m_journal.done, [this](const DoneDatabase& done) {
        return m_journal.entry_of(done.path) != nullptr; // it is recovered again
    });
}

void JournalKeeper::begin_roll_forward(const RecoveryPlan& plan,
                                       const std::vector<DatabaseRecovery>& told,
                                       const OwedDatabases* owed) {
    list_databases(plan, told, owed);
    if (plan.in_place())
        name_copies_twice();
    m_journal.recovering = true;
    m_file.write(m_journal);
}

// The server removes a copy when it has put it in place, by the only name that it knows.
void JournalKeeper::name_copies_twice() {
    std::string folder = m_journal.pending_folder + links_folder;
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot create the folder {}: {}", for_terminal(folder),
                                      system_error_text(errno)));
    std::size_t number = 0;
    for (PendingDatabase& pending : m_journal.databases) {
        if (pending.copy.empty())
            continue;
        pending.before = file_state(pending.path);
        pending.link = fmt::format("{}/{}", folder, number++);
        ::unlink(pending.link.c_str()); // of an earlier run
        if (::link(pending.copy.c_str(), pending.link.c_str()) != 0)
            pending.link.clear(); // not every file system has them: the original is asked then
    }
    int error = flush_directory(AT_FDCWD, folder);
    if (error == 0)
        error = flush_directory(AT_FDCWD, m_journal.pending_folder);
    if (error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot flush the folder of restored copies {}: {}",
                                      for_terminal(m_journal.pending_folder),
                                      system_error_text(error)));
}

void JournalKeeper::strike_what_is_in_place(const std::vector<DatabaseRecovery>& told) {
    std::map<std::string, const DatabaseRecovery*> results;
    for (const DatabaseRecovery& database : told)
        results[database.path] = &database;
    std::vector<std::string> links;
    std::erase_if(m_journal.databases, [&](PendingDatabase& pending) {
        auto result = results.find(pending.path);
        if (result == results.end())
            return false;
        const DatabaseRecovery& database = *result->second;
        if (database.outcome == RecoveryOutcome::waiting) {
            pending.before.reset(); // not in its place, whatever becomes of the copy
            return false;
        }
        if (database.outcome == RecoveryOutcome::failed) {
            pending.copy.clear();
            return false;
        }
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

std::vector<std::string> JournalKeeper::remove_leftovers() const {
    return abandon_recovery(m_journal);
}

} // namespace qrtln
