#include "client/recovery/logs.h"

#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/sets/log_gaps.h"
#include "client/sets/log_positions.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fmt/format.h>
#include <map>
#include <set>

namespace qrtln {

namespace {

// A log is stamped when its last change is written, a little after the change was given its time.
constexpr std::int64_t stamp_tolerance = 1; // seconds

std::int64_t whole_seconds(std::int64_t time_ns) {
    constexpr std::int64_t nanoseconds = 1'000'000'000;
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

std::int64_t newest_of(const std::vector<PlacedLog>& placed) {
    return std::max_element(
               placed.begin(), placed.end(),
               [](const PlacedLog& a, const PlacedLog& b) { return a.position < b.position; })
        ->position;
}

using Holdings = std::map<std::int64_t, Holding>; // by position

Holdings collect(const std::vector<PlacedLog>& placed, const ServerLogs& server) {
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
std::int64_t first_needed(const std::vector<PlacedLog>& placed, const std::string& set) {
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
            fmt::format("the folder {} holds another transaction log than the sets: not number {}, "
                        "nor any after it",
                        for_terminal(server.directory), LogPositions::number(newest_stored)),
            "if the folder of the logs was lost and the server began a new log: shut "
            "the server down, move that folder away, and run the same command; it then "
            "comes back from the store",
            std::nullopt};
}

// What is there from the first log that is needed to the last one, for its gaps.
LogCopies copies_of(const Holdings& holdings) {
    LogCopies copies;
    for (const auto& [position, holding] : holdings)
        if (holding.on_server || holding.whole != nullptr)
            copies[position] = LogCopy::whole;
        else if (holding.partial != nullptr)
            copies[position] = LogCopy::partial;
    return copies;
}

// The newest log that is stored whole.
std::optional<std::int64_t> newest_whole_of(const std::vector<PlacedLog>& placed) {
    std::optional<std::int64_t> newest;
    for (const auto& [position, log] : placed)
        if (!log->item.log->active)
            newest = std::max(newest.value_or(position), position);
    return newest;
}

// The end that is known when the server's own logs are lost.
std::optional<std::int64_t> end_of_stored(const Holdings& holdings) {
    std::optional<std::int64_t> ends = reachable_with(holdings, holdings.rbegin()->first);
    if (const StoredLog* newest = holdings.rbegin()->second.stored())
        ends = std::max(ends.value_or(newest->set_started), newest->set_started);
    return ends;
}

// Takes the logs from the first position on until one holds changes of after the wanted time, or to
// the last position, and stops before a log that is missing.
void take_logs(const Holdings& holdings, std::int64_t first, std::int64_t last,
               const std::vector<MissingPositions>& gaps, const RecoveryLogNeeds& needs,
               RecoveryLogs& result) {
    for (std::int64_t position = first; position <= last; ++position) {
        if (!gaps.empty() && position == gaps.front().first) {
            result.missing = MissingLogs{LogPositions::number(position),
                                         LogPositions::number(gaps.front().last),
                                         {},
                                         {},
                                         reachable_with(holdings, position - 1)};
            return;
        }
        const Holding& holding = holdings.at(position);
        if (!holding.on_server)
            result.restore.push_back(*holding.stored());
        std::optional<std::int64_t> change = holding.last_change();
        if (needs.to && change && whole_seconds(*change) > *needs.to + stamp_tolerance) {
            result.last = LogPositions::number(position);
            return;
        }
    }
}

} // namespace

RecoveryLogs find_recovery_logs(const StoredLogs& stored, const ServerLogs& server,
                                const RecoveryLogNeeds& needs) {
    RecoveryLogs result;
    if (stored.logs.empty())
        return result; // the server's own logs are all there is
    result.any_stored = true;
    const std::vector<PlacedLog> placed = place_newest_archive(stored);
    const Holdings holdings = collect(placed, server);
    const std::int64_t newest_stored = newest_of(placed);
    const std::int64_t first = first_needed(placed, needs.oldest_set);
    const std::int64_t last = holdings.rbegin()->first;
    result.first = LogPositions::number(first);
    result.last = LogPositions::number(last);
    // The server removes a log, or uses its file again, once it is stored whole. Where names tell
    // nothing, those behind the newest such one are taken to be there: the server says if not.
    const bool cannot_see = !server.names_tell && !server.missing;
    if (server.missing) {
        result.control = stored.control;
        result.ends = end_of_stored(holdings);
    } else if (!cannot_see &&
               std::none_of(holdings.lower_bound(newest_stored), holdings.end(),
                            [](const auto& entry) { return entry.second.on_server; })) {
        // The newest stored log was still on the server when it was stored.
        result.missing = other_log(server, newest_stored);
        return result;
    }
    const std::vector<MissingPositions> gaps =
        find_gaps(copies_of(holdings), first, last,
                  cannot_see ? LastLog::must_be_whole : LastLog::may_be_partial);
    const std::int64_t last_seen = cannot_see ? newest_whole_of(placed).value_or(first - 1) : last;
    take_logs(holdings, first, std::min(last, last_seen), gaps, needs, result);
    if (!result.missing)
        choose_names(result, server);
    return result;
}

std::string describe(const MissingLogs& missing) {
    if (!missing.reason.empty())
        return missing.reason;
    return missing_logs_text(missing.first, missing.last);
}

} // namespace qrtln
