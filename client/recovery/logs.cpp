#include "client/recovery/logs.h"

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/recovery/journal.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_positions.h"
#include "client/sets/server_scope.h"
#include "client/store/file_digest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr std::string_view control_file = "nlogctrl.lfh";
// A log is stamped when its last change is written, a little after the change was given its time.
constexpr std::int64_t stamp_tolerance = 1; // seconds

std::int64_t whole_seconds(std::int64_t time_ns) {
    constexpr std::int64_t nanoseconds = 1'000'000'000;
    return time_ns / nanoseconds - (time_ns % nanoseconds < 0 ? 1 : 0);
}

// The content of a file in the folder of the logs. A plan is made several times, and they are
// large.
const std::string& digest_of(const std::string& path, const FileState& state,
                             const std::function<void()>& between) {
    static std::map<std::string, std::pair<FileState, std::string>> known;
    auto entry = known.find(path);
    if (entry == known.end() || entry->second.first != state)
        entry = known.insert_or_assign(path, std::pair(state, file_digest(path, between))).first;
    return entry->second.second;
}

// Whether the file there is this stored log. What was not written since needs not be read.
bool is_stored_log(const std::string& path, const ManifestItem& item,
                   const std::function<void()>& between) {
    FileState there = file_state(path);
    if (!there.there || static_cast<std::uint64_t>(there.size) != item.size)
        return false;
    bool untouched =
        item.has_metadata && there.mtime_ns == item.mtime_ns && name_of(path) == name_of(item.path);
    return untouched || digest_of(path, there, between) == item.object;
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

// A stored log of the newest archive.
struct Placed {
    std::int64_t position = 0; // in the order of the logs
    const StoredLog* log = nullptr;
};

// In the order of their sets.
std::vector<Placed> place_newest_archive(const StoredLogs& stored) {
    std::vector<Placed> placed;
    LogPositions position;
    for (const StoredLog& log : stored.logs)
        if (same_archive(*log.item.log, *stored.logs.back().item.log))
            placed.push_back({position.of(log.item.log->number), &log});
    return placed;
}

std::int64_t newest_of(const std::vector<Placed>& placed) {
    return std::max_element(
               placed.begin(), placed.end(),
               [](const Placed& a, const Placed& b) { return a.position < b.position; })
        ->position;
}

using Holdings = std::map<std::int64_t, Holding>; // by position

Holdings collect(const std::vector<Placed>& placed, const ServerLogs& server) {
    Holdings holdings;
    for (const auto& [position, log] : placed) {
        Holding& holding = holdings[position]; // of a damaged one, too: it was there
        if (log->damaged)
            continue;
        (log->item.log->active ? holding.partial : holding.whole) = log;
    }
    const std::int64_t newest = newest_of(placed);
    for (const auto& [number, time] : server.last_used) {
        LogPositions position; // around the newest stored one, whichever way numbers wrap
        position.of(LogPositions::number(newest));
        const std::int64_t offset = newest - LogPositions::number(newest);
        holdings[position.of(number) + offset].on_server = time;
    }
    return holdings;
}

// The lowest log that a database in `set` may need: the lowest log of the set, else the one that
// was being written when the set before it ended, else the lowest of the next.
std::int64_t first_needed(const std::vector<Placed>& placed, const std::string& set) {
    std::optional<std::int64_t> own;
    std::optional<std::int64_t> before;
    std::optional<std::int64_t> after;
    std::string after_set;
    for (const auto& [position, log] : placed) {
        if (log->set == set)
            own = std::min(own.value_or(position), position);
        else if (log->set < set)
            before = std::max(before.value_or(position), position);
        else if (after_set.empty() || after_set == log->set) {
            after_set = log->set;
            after = std::min(after.value_or(position), position);
        }
    }
    return own ? *own : before ? *before : after.value_or(0);
}

std::optional<std::int64_t> reachable_with(const Holdings& holdings, std::int64_t last) {
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
            if (log.set == control.set && same_archive(*log.item.log, *stored.logs.back().item.log))
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
    bool other_names = false; // of logs, in a form that tells no number
    for (const std::string& name : *names) {
        logs.has_control = logs.has_control || name == control_file;
        struct stat status {};
        std::optional<std::uint32_t> number = log_number_of(name);
        other_names = other_names || (!number && item_kind_of(name) == ItemKind::log);
        if (number && ::lstat((directory + "/" + name).c_str(), &status) == 0 &&
            S_ISREG(status.st_mode))
            logs.last_used[*number] = modification_time_ns(status);
    }
    logs.missing = logs.last_used.empty() && !logs.has_control && !other_names; // a new disk
    return logs;
}

void compare_with_stored(ServerLogs& server, const StoredLogs& stored,
                         const std::function<void()>& between) {
    if (server.directory.empty() || stored.logs.empty())
        return;
    std::map<std::uint32_t, const StoredLog*> whole; // the newest copy of each
    for (const Placed& placed : place_newest_archive(stored)) {
        const LogIdentity& log = *placed.log->item.log;
        server.names_tell =
            server.names_tell && log_number_of(name_of(placed.log->item.path)) == log.number;
        if (exists(server.directory + "/" + name_of(placed.log->item.path)))
            server.missing = false; // whatever form its name has
        if (!log.active && !placed.log->damaged)
            whole[log.number] = placed.log;
    }
    std::map<std::uint32_t, std::int64_t> found;
    for (const auto& [number, log] : whole) {
        const std::string path = server.directory + "/" + name_of(log->item.path);
        if (!exists(path))
            continue;
        if (is_stored_log(path, log->item, between))
            found[number] = file_state(path).mtime_ns;
        else
            server.names_tell = false;
    }
    if (!server.names_tell)
        server.last_used = std::move(found);
}

bool has_newest_archive(const StoredLogs& stored, const std::string& set) {
    const StoredLog* nearest = nullptr;
    for (const StoredLog& log : stored.logs) {
        if (log.set > set && nearest != nullptr)
            break;
        nearest = &log;
    }
    return nearest == nullptr || same_archive(*nearest->item.log, *stored.logs.back().item.log);
}

namespace {

// A name for each log that comes back: its own, or one that it may have instead, where another file
// of that name is there, or a newer log takes it. What an earlier run put back is left as it is.
void choose_names(RecoveryLogs& logs, const ServerLogs& server) {
    std::set<std::string> taken;
    for (auto log = logs.restore.rbegin(); log != logs.restore.rend(); ++log) {
        const std::string own = name_of(log->item.path);
        std::array<char, 32> by_number{};
        std::snprintf(by_number.data(), by_number.size(), "S%07u.TXN", log->item.log->number);
        std::string name = own;
        bool there = false;
        auto in_use = [&] {
            const std::string path = server.directory + "/" + name;
            bool other = !server.missing && exists(path);
            there = other && is_stored_log(path, log->item, {});
            return !there && (other || taken.contains(name));
        };
        if (in_use())
            name = by_number.data();
        while (in_use() && name.front() < 'Z')
            ++name.front();
        log->target_name = there ? "" : name;
        logs.renamed = logs.renamed || name != own;
        taken.insert(name);
    }
    std::erase_if(logs.restore, [](const StoredLog& log) { return log.target_name.empty(); });
}

// Why the server's logs do not continue the stored ones.
MissingLogs other_log(const ServerLogs& server, std::int64_t newest_stored) {
    return {0, 0,
            "the folder " + for_terminal(server.directory) +
                " holds another transaction log than the sets: not number " +
                std::to_string(LogPositions::number(newest_stored)) + ", nor any after it",
            "if the folder of the logs was lost and the server began a new log: shut "
            "the server down, move that folder away, and run the same command; it then "
            "comes back from the store",
            std::nullopt};
}

// The first gap at or behind this position, with the last position of the gap.
std::int64_t end_of_gap(const Holdings& holdings, std::int64_t first, std::int64_t last) {
    for (auto next = holdings.upper_bound(first); next != holdings.end(); ++next)
        if (next->second.on_server || next->second.stored() != nullptr)
            return std::min(last, next->first - 1);
    return last;
}

} // namespace

RecoveryLogs find_recovery_logs(const StoredLogs& stored, const ServerLogs& server,
                                const RecoveryLogNeeds& needs) {
    RecoveryLogs result;
    if (stored.logs.empty())
        return result; // the server's own logs are all there is
    result.any_stored = true;
    const std::vector<Placed> placed = place_newest_archive(stored);
    const Holdings holdings = collect(placed, server);
    const std::int64_t newest_stored = newest_of(placed);
    const std::int64_t first = first_needed(placed, needs.oldest_set);
    std::int64_t last = holdings.rbegin()->first;
    // The server removes a log, or uses its file again, once it is stored whole. Where names tell
    // nothing, those behind the newest such one are taken to be there: the server says if not.
    std::optional<std::int64_t> newest_whole;
    for (const auto& [position, log] : placed)
        if (!log->item.log->active)
            newest_whole = std::max(newest_whole.value_or(position), position);
    const bool cannot_see = !server.names_tell && !server.missing;
    result.first = LogPositions::number(first);
    result.last = LogPositions::number(last);
    if (server.missing) {
        result.control = stored.control;
        result.ends = reachable_with(holdings, last);
        if (const StoredLog* newest = holdings.rbegin()->second.stored())
            result.ends = std::max(result.ends.value_or(newest->set_started), newest->set_started);
    } else if (!cannot_see &&
               std::none_of(holdings.lower_bound(newest_stored), holdings.end(),
                            [](const auto& entry) { return entry.second.on_server; })) {
        // The newest stored log was still on the server when it was stored.
        result.missing = other_log(server, newest_stored);
        return result;
    }
    for (std::int64_t position = first; position <= last; ++position) {
        auto held = holdings.find(position);
        const Holding holding = held == holdings.end() ? Holding{} : held->second;
        if (cannot_see && (!newest_whole || position > *newest_whole))
            break;
        bool at_the_end = !cannot_see && position == last && holding.partial != nullptr;
        if (!holding.on_server && holding.whole == nullptr && !at_the_end) {
            result.missing = MissingLogs{LogPositions::number(position),
                                         LogPositions::number(end_of_gap(holdings, position, last)),
                                         {},
                                         {},
                                         reachable_with(holdings, position - 1)};
            return result;
        }
        if (!holding.on_server)
            result.restore.push_back(*holding.stored());
        std::optional<std::int64_t> change = holding.last_change();
        if (needs.to && change && whole_seconds(*change) > *needs.to + stamp_tolerance) {
            result.last = LogPositions::number(position); // it holds changes of after that time
            break;
        }
    }
    choose_names(result, server);
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
