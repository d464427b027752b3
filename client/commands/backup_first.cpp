#include "client/commands/backup_first.h"

#include "client/backup/away_folder.h"
#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/backup_text.h"
#include "client/domino/database_names.h"
#include "client/sets/index_guard.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr const char* reason_owed = "owed";

// Where an owed database is; neither of the last two: it is gone.
struct OwedPlace {
    bool there = false;
    std::optional<AwayFolder> away; // what keeps it from being looked at
};

OwedPlace place_of(const std::string& path, const std::string& data_directory,
                   const RemovedFolders& removed) {
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && !(S_ISDIR(status.st_mode) && is_database_name(path)))
        return {true, {}};
    int error = errno;
    bool missing = S_ISDIR(status.st_mode) || error == ENOENT || error == ENOTDIR;
    std::optional<AwayFolder> folder;
    if (!removed.covers(path) && is_below(path, data_directory))
        folder = away_folder(path, data_directory);
    if (!folder && !missing)
        folder = AwayFolder{path, "it cannot be looked at: " + system_error_text(error)};
    return {false, std::move(folder)};
}

void tell_saved_first(std::size_t count, const std::string& what) {
    if (count > 0)
        print_message(fmt::format("{} databases {}: they are saved first, in a set of their own",
                                  count, what));
}

} // namespace

void BackupFirst::raise(int code) {
    m_code = std::max(m_code, code);
}

void BackupFirst::tell_away(const std::string& folder, const std::string& reason,
                            std::size_t databases) {
    m_code = static_cast<int>(ExitCode::items_failed);
    print_error(fmt::format("{} databases of {}, which an earlier run did not store, are away: {}",
                            databases, for_terminal(folder), reason),
                "mount its disk and back up again; if it was removed for good, say --removed " +
                    for_terminal(folder));
}

std::set<std::string> BackupFirst::owed_and_there() {
    const std::string& data = m_ini.data_directory;
    std::vector<std::string> gone;
    std::map<std::string, std::pair<std::string, std::size_t>> away; // reason and databases
    std::set<std::string> there;
    for (const std::string& path : m_context.owed.of(data)) {
        OwedPlace place = place_of(path, data, m_removed);
        if (place.there) {
            there.insert(path);
        } else if (place.away) {
            auto& [reason, count] = away[place.away->path];
            reason = place.away->reason;
            ++count;
        } else if (!m_context.owed.is_restored(data, path)) {
            gone.push_back(path);
            print_message(fmt::format(
                "the database {}, which an earlier run did not store, is gone from the server",
                for_terminal(path)));
        } // One that was restored and lost again stays: no log leads over that when it comes back.
    }
    for (const auto& [folder, what] : away)
        tell_away(folder, what.first, what.second);
    // Where the list cannot be written they are found gone once more.
    (void)m_context.owed.strike(data, gone);
    return there;
}

// Each kind with a message of its own.
std::set<std::string> BackupFirst::choose(const BackupRequest& request, const SetsSince& since) {
    std::set<std::string> paths = owed_and_there();
    tell_saved_first(paths.size(), "were prepared or restored and are in no set yet as they are");
    if (request.base.empty())
        return paths;
    std::size_t before = paths.size();
    if (request.level == "incr") // one that is not logged would wait for the next full backup
        for (const std::string& path : request.scan.databases)
            if (!since.databases.contains(path))
                paths.insert(path);
    tell_saved_first(paths.size() - before, "are in no set since " + request.base);
    before = paths.size();
    for (const std::string& path : request.scan.databases)
        if (!fits_index(path))
            paths.insert(path);
    tell_saved_first(paths.size() - before,
                     "have names that the index of databases cannot hold (with \"=\", a line end, "
                     "or too long)");
    return paths;
}

// Those that can be named.
std::vector<DatabaseArgument> BackupFirst::arguments_of(const std::set<std::string>& paths) {
    std::vector<DatabaseArgument> arguments;
    for (const std::string& path : paths) {
        try {
            for (DatabaseArgument& argument :
                 resolve_database_arguments({path}, m_ini.data_directory))
                arguments.push_back(std::move(argument));
        } catch (const ClientError& failure) {
            m_unnamed[path] = failure.what();
        }
    }
    return arguments;
}

void BackupFirst::save(BackupRequest& request, const SetsSince& since,
                       const std::function<void()>& settle_base_again) {
    BackupRequest first;
    first.arguments = arguments_of(choose(request, since));
    if (first.arguments.empty())
        return;
    first.level = "full"; // of named databases: without logs
    first.reason = reason_owed;
    first.rules = request.rules;
    first.scan = scan_selection(m_ini.data_directory, first.arguments);
    try {
        m_set = run_backup_operation(m_context, std::move(first));
        for (const ManifestItem& item : m_set->items)
            if (item.status == ItemStatus::left_out)
                request.left_out.push_back(item);
        if (m_set->set.empty())
            m_set.reset();
        else
            raise(exit_code_of(*m_set));
    } catch (const ClientError& failure) {
        throw_if_interrupted();
        m_code = failure.exit_code();
        print_error("the databases that come first could not be saved; what is owed stays so: " +
                        std::string(failure.what()),
                    failure.hint());
        settle_base_again();
    }
}

void BackupFirst::report_unnamed(const Manifest& asked, const BackupRequest& request) {
    for (const ManifestItem& item : asked.items)
        if (item.status == ItemStatus::stored)
            m_unnamed.erase(item.path);
    const PathRules rules(request.rules, m_ini.data_directory);
    for (const auto& [path, reason] : m_unnamed) {
        if (rules.acknowledges(path_below(path, m_ini.data_directory)))
            continue;
        raise(static_cast<int>(ExitCode::items_failed));
        print_error(fmt::format("the database {} is not saved, as it cannot be named: {}",
                                for_terminal(path), reason),
                    "a backup of the whole server with --level full saves it");
    }
}

} // namespace qrtln
