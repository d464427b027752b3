#include "client/recovery_logs.h"

#include "client/catalogue.h"
#include "client/error.h"
#include "client/file_io.h"
#include "client/text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr std::string_view control_file = "nlogctrl.lfh";
constexpr std::int64_t nanoseconds = 1'000'000'000;
// A log is stamped when its last change is written, a little after the change was given its time.
constexpr std::int64_t stamp_tolerance = 1; // seconds

std::int64_t whole_seconds(std::int64_t time_ns) {
    return time_ns / nanoseconds - (time_ns % nanoseconds < 0 ? 1 : 0);
}

// What there is of one number.
struct Holding {
    const StoredLog* whole = nullptr;   // the newest copy that was taken when the log was full
    const StoredLog* partial = nullptr; // the newest of those taken while it was written
    std::optional<std::int64_t> on_server;

    const StoredLog* stored() const { return whole != nullptr ? whole : partial; }
    // The time of its last known change, in nanoseconds; nothing when nobody knows.
    std::optional<std::int64_t> last_change() const {
        if (on_server)
            return on_server;
        const StoredLog* copy = stored();
        if (copy == nullptr || !copy->item.has_metadata)
            return std::nullopt;
        return copy->item.mtime_ns;
    }
};

using Holdings = std::map<std::uint32_t, Holding>;

Holdings collect(const StoredLogs& stored, const ServerLogs& server, const std::string& id) {
    Holdings holdings;
    for (const StoredLog& log : stored.logs) {
        if (log.item.log->archive_id != id)
            continue;
        Holding& holding = holdings[log.item.log->number]; // of a damaged one, too: it was there
        if (log.damaged)
            continue;
        (log.item.log->active ? holding.partial : holding.whole) = &log;
    }
    for (const auto& [number, time] : server.last_used)
        holdings[number].on_server = time;
    return holdings;
}

// The lowest number that a database in `set` may need: the lowest log of the set, else the one that
// was being written when the set before it ended, else the lowest of the next.
std::optional<std::uint32_t> first_needed(const StoredLogs& stored, const std::string& id,
                                          const std::string& set) {
    std::optional<std::uint32_t> own;
    std::optional<std::uint32_t> before;
    std::optional<std::uint32_t> after;
    std::string after_set;
    for (const StoredLog& log : stored.logs) {
        if (log.item.log->archive_id != id)
            continue;
        std::uint32_t number = log.item.log->number;
        if (log.set == set)
            own = std::min(own.value_or(number), number);
        else if (log.set < set)
            before = std::max(before.value_or(number), number);
        else if (after_set.empty() || after_set == log.set) {
            after_set = log.set;
            after = std::min(after.value_or(number), number);
        }
    }
    return own ? own : before ? before : after;
}

std::optional<std::int64_t> reachable_with(const Holdings& holdings, std::uint32_t last) {
    auto holding = holdings.find(last);
    if (holding == holdings.end())
        return std::nullopt;
    std::optional<std::int64_t> change = holding->second.last_change();
    if (!change)
        return std::nullopt;
    // So that the search for logs up to this time ends with this log.
    return whole_seconds(*change) - stamp_tolerance - 1;
}

} // namespace

StoredLogs load_stored_logs(Store& store, const ServerScope& scope,
                            const std::set<std::pair<std::string, std::string>>& damaged) {
    StoredLogs stored;
    std::vector<StoredLog> controls;
    for (const std::string& set : store.set_names()) {
        CatalogueEntry entry = load_set(store, set, scope);
        if (!entry.manifest)
            continue;
        for (ManifestItem& item : entry.manifest->items) {
            if (item.status != ItemStatus::stored)
                continue;
            bool is_damaged = damaged.contains({item.path, item.object});
            if (item.log)
                stored.logs.push_back({set, std::move(item), is_damaged, entry.manifest->started});
            else if (item.kind == ItemKind::log_control && !is_damaged)
                controls.push_back({set, std::move(item), false, entry.manifest->started});
        }
    }
    // It describes the log of its own set.
    for (const StoredLog& control : controls)
        for (const StoredLog& log : stored.logs)
            if (log.set == control.set &&
                log.item.log->archive_id == stored.logs.back().item.log->archive_id)
                stored.control = control;
    return stored;
}

std::optional<std::uint32_t> log_number_of(const std::string& file_name) {
    constexpr std::string_view extension = ".TXN";
    std::string_view name = file_name;
    if (!name.starts_with('S') || !name.ends_with(extension))
        return std::nullopt;
    name.remove_prefix(1);
    name.remove_suffix(extension.size());
    std::uint32_t number = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (name.empty() || error != std::errc() || end != name.data() + name.size())
        return std::nullopt;
    return number;
}

ServerLogs look_at_server_logs(const std::string& directory) {
    ServerLogs logs;
    logs.directory = directory;
    if (directory.empty())
        return logs;
    std::optional<std::vector<std::string>> names = names_in_folder(directory);
    if (!names && errno != ENOENT)
        throw ClientError(ExitCode::failed,
                          "cannot read the folder of the transaction logs, " +
                              for_terminal(directory) + ": " + system_error_text(errno),
                          "TRANSLOG_Path in notes.ini names it");
    if (!names) {
        logs.missing = true;
        return logs;
    }
    for (const std::string& name : *names) {
        logs.has_control = logs.has_control || name == control_file;
        struct stat status {};
        std::optional<std::uint32_t> number = log_number_of(name);
        if (number && ::lstat((directory + "/" + name).c_str(), &status) == 0 &&
            S_ISREG(status.st_mode))
            logs.last_used[*number] = status.st_mtim.tv_sec * nanoseconds + status.st_mtim.tv_nsec;
    }
    logs.missing = logs.last_used.empty() && !logs.has_control; // a new disk in its place
    return logs;
}

std::string archive_id_at(const StoredLogs& stored, const std::string& set) {
    std::string id;
    for (const StoredLog& log : stored.logs) {
        if (log.set > set && !id.empty())
            break;
        id = log.item.log->archive_id;
    }
    return id;
}

RecoveryLogs find_recovery_logs(const StoredLogs& stored, const ServerLogs& server,
                                const RecoveryLogNeeds& needs) {
    RecoveryLogs result;
    if (stored.logs.empty())
        return result; // the server's own logs are all there is
    result.archive_id = stored.logs.back().item.log->archive_id;
    std::optional<std::uint32_t> first = first_needed(stored, result.archive_id, needs.oldest_set);
    if (!first)
        return result;
    Holdings holdings = collect(stored, server, result.archive_id);
    std::uint32_t newest_stored = 0;
    for (const StoredLog& log : stored.logs)
        if (log.item.log->archive_id == result.archive_id)
            newest_stored = std::max(newest_stored, log.item.log->number);
    result.first = *first;
    result.last = holdings.rbegin()->first;
    if (server.missing) {
        result.control = stored.control;
        result.ends = reachable_with(holdings, result.last);
        if (const StoredLog* newest = holdings.rbegin()->second.stored())
            result.ends = std::max(result.ends.value_or(newest->set_started), newest->set_started);
    } else if (server.last_used.empty() || server.last_used.rbegin()->first < newest_stored) {
        // The newest stored log was still on the server when it was stored.
        result.missing =
            MissingLogs{0, 0,
                        "the folder " + for_terminal(server.directory) +
                            " holds another transaction log than the sets: not number " +
                            std::to_string(newest_stored) + ", nor any after it",
                        "if the folder of the logs was lost and the server began a new log: shut "
                        "the server down, move that folder away, and run the same command; it then "
                        "comes back from the store",
                        std::nullopt};
        return result;
    }
    for (std::uint32_t number = result.first; number <= result.last; ++number) {
        const Holding& holding = holdings[number];
        bool at_the_end = number == result.last && holding.partial != nullptr;
        if (!holding.on_server && holding.whole == nullptr && !at_the_end) {
            std::uint32_t last = number;
            while (last < result.last && !holdings[last + 1].on_server &&
                   holdings[last + 1].stored() == nullptr)
                ++last;
            result.missing =
                MissingLogs{number, last, {}, {}, reachable_with(holdings, number - 1)};
            return result;
        }
        if (!holding.on_server)
            result.restore.push_back(*holding.stored());
        std::optional<std::int64_t> change = holding.last_change();
        if (needs.to && change && whole_seconds(*change) > *needs.to + stamp_tolerance) {
            result.last = number; // it holds changes of after that time
            break;
        }
    }
    return result;
}

std::string describe(const MissingLogs& missing) {
    if (!missing.reason.empty())
        return missing.reason;
    return missing.first == missing.last
               ? "the transaction log " + std::to_string(missing.first) + " is missing"
               : "the transaction logs " + std::to_string(missing.first) + " to " +
                     std::to_string(missing.last) + " are missing";
}

} // namespace qrtln
