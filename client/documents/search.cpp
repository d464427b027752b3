#include "client/documents/search.h"

#include "client/backup/arguments.h"
#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/server_lock.h"
#include "client/module/told.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <set>
#include <unistd.h>
#include <utility>

namespace qrtln {

namespace {

constexpr std::time_t minute = 60;
// Runs that narrow down times: enough for two moments within a year to the minute.
constexpr unsigned maximal_searches = 48;

} // namespace

void DocumentSearch::take_live_copy(OwedDatabases& owed) {
    const std::string& path = m_request.item.path;
    std::vector<DatabaseArgument> arguments =
        resolve_database_arguments({path}, m_context.ini.data_directory);
    std::string incomplete;
    FileDescriptor lock = lock_server(m_context.ini); // outlives the session
    ++m_result.operations;
    ModuleSession session(m_context, [&](const std::string& line) {
        if (says_changes_incomplete(line))
            incomplete = line;
    });
    auto take = [&](const std::string&) {
        owed.add(m_context.ini.data_directory, path); // the server counts it as backed up
        prepare_live_copy(session, incomplete);
        return true;
    };
    if (!session
             .take_copies("copy of the live database", m_copies.work_folder(),
                          {{path, arguments[0].value}}, take)
             .empty())
        throw ClientError(ExitCode::server_error,
                          fmt::format("the module does not hand out {}: {}", for_terminal(path),
                                      for_terminal(session.reason())));
}

void DocumentSearch::prepare_live_copy(ModuleSession& session, const std::string& incomplete) {
    const std::string& path = m_request.item.path;
    Preparation prepared = session.prepare(path);
    throw_if_interrupted();
    if (!prepared.usable || !is_below(prepared.item.name, m_copies.work_folder()) ||
        !incomplete.empty())
        throw ClientError(
            ExitCode::server_error,
            fmt::format("the server cannot copy the live database {}: {}", for_terminal(path),
                        for_terminal(incomplete.empty() ? session.reason() : incomplete)));
    // The module removes its own name of the copy.
    if (::link(prepared.item.name.c_str(), m_copies.live_copy().c_str()) != 0)
        fail_file("keep the copy of", path, errno);
}

void DocumentSearch::find() {
    std::time_t now = std::time(nullptr);
    bool changed = m_request.kind == DocumentKind::changed;
    std::vector<NoteId> listed;
    if (changed)
        listed = m_trials.readable_in_the_set();
    std::vector<NoteId> candidates;
    if (!changed || !listed.empty())
        candidates = search(m_request.since, listed);
    Intervals intervals;
    if (!candidates.empty()) {
        std::time_t end = m_request.since.time + (now - m_request.since.time) / minute * minute;
        intervals[{m_request.since.time, end + minute}] = candidates;
        narrow(intervals, listed);
    }
    std::map<NoteId, Interval> times;
    for (const auto& [interval, ids] : intervals)
        for (NoteId id : ids)
            times[id] = interval;
    for (NoteId id : candidates)
        m_result.documents.push_back(
            {id, DocumentOutcome::candidate, "", times[id].first, times[id].second});
    if (changed)
        m_trials.add_others(m_result.ended_at_failure);
}

// What a restore since then would bring back.
std::vector<NoteId> DocumentSearch::search(const PointInTime& since,
                                           const std::vector<NoteId>& ids) {
    throw_if_interrupted();
    m_copies.renew_original(m_copies.live_copy());
    DocumentRun run = m_module.run(m_copies.original(), m_request.kind, since.digits, ids, true);
    require_meant(run); // the zones may differ at another time of the year
    if (run.failure)
        throw *run.failure;
    const TracedNote* failed = run.failed_note();
    if (m_request.kind == DocumentKind::deleted && failed != nullptr &&
        m_result.documents.size() < maximal_unreadable && m_trials.drop_unreadable(failed->id)) {
        m_result.documents.push_back({failed->id, DocumentOutcome::failed, run.reason});
        return search(since, ids);
    }
    if (!run.good)
        throw ClientError(ExitCode::server_error,
                          fmt::format("the server cannot restore documents into a copy of {}: {}{}",
                                      for_terminal(m_request.item.path),
                                      failed != nullptr ? note_id_text(failed->id) + ": " : "",
                                      for_terminal(run.reason)),
                          "--verbose and --trace show what the module did");
    std::vector<NoteId> found;
    for (const TracedNote& note : run.notes)
        found.push_back(note.id);
    return found;
}

// Halves the widest interval, and every other that the same run tells about, as long as that helps.
void DocumentSearch::narrow(Intervals& intervals, const std::vector<NoteId>& listed) {
    for (unsigned searches = 0; searches < maximal_searches; ++searches) {
        std::optional<PointInTime> point = middle_of_widest(intervals);
        if (!point)
            return;
        std::vector<NoteId> found = search(*point, listed);
        std::set<NoteId> later(found.begin(), found.end());
        Intervals narrower;
        for (const auto& [interval, ids] : intervals)
            for (NoteId id : ids) {
                auto [first, last] = interval;
                if (point->time > first && point->time < last)
                    (later.contains(id) ? first : last) = point->time;
                narrower[{first, last}].push_back(id);
            }
        intervals = std::move(narrower);
    }
}

// Of the widest interval that has one.
std::optional<PointInTime> DocumentSearch::middle_of_widest(const Intervals& intervals) {
    std::optional<PointInTime> point;
    std::time_t widest = 0;
    for (const auto& [interval, ids] : intervals)
        if (interval.second - interval.first > std::max(widest, minute))
            if (std::optional<PointInTime> middle = between(interval.first, interval.second)) {
                point = middle;
                widest = interval.second - interval.first;
            }
    return point;
}

// The minute that is next to the middle of the two, among those that can be told to the server.
std::optional<PointInTime> DocumentSearch::between(std::time_t first, std::time_t last) {
    std::time_t middle = first + (last - first) / (2 * minute) * minute;
    for (std::time_t away = 0; middle - away > first || middle + away < last; away += minute)
        for (std::time_t time : {middle - away, middle + away})
            if (time > first && time < last)
                if (std::optional<PointInTime> point = point_in_time(time))
                    return point;
    return std::nullopt;
}

} // namespace qrtln
