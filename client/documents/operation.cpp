#include "client/documents/operation.h"

#include "client/backup/arguments.h"
#include "client/base/file_descriptor.h"
#include "client/base/interrupt.h"
#include "client/base/limits.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/room.h"
#include "client/base/safe_folder.h"
#include "client/base/text.h"
#include "client/domino/server_lock.h"
#include "client/domino/server_user.h"
#include "client/module/document_trace.h"
#include "client/module/host.h"
#include "client/module/temporary_directory.h"
#include "client/module/told.h"
#include "client/restore/object_content.h"
#include "client/restore/safe_file.h"

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::time_t minute = 60;
// Runs that narrow down times: enough for two moments within a year to the minute.
constexpr unsigned maximal_searches = 48;
// Documents that the server cannot read in the set's copy, until the restore gives up.
constexpr std::size_t maximal_unreadable = 100;
constexpr std::size_t copy_step = std::size_t{64} << 20;
// Before any document was written.
constexpr const char* earliest_point = "199001010000";
// Below the private folder.
constexpr const char* work_folder = "work";         // TMP_DIR of the module
constexpr const char* set_folder = "set";           // the set's copy
constexpr const char* live_folder = "live";         // the consistent copy of the live database
constexpr const char* original_folder = "original"; // what stands in for the live database

[[noreturn]] void fail_file(const std::string& doing, const std::string& path, int error) {
    throw ClientError(ExitCode::failed, "cannot " + doing + " " + for_terminal(path) + ": " +
                                            system_error_text(error));
}

// Both files are this run's own. The kernel shares the blocks where the file system can.
void copy_file(const std::string& from, const std::string& to, const std::string& data_directory) {
    FileDescriptor source(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!source)
        fail_file("open", from, errno);
    FileDescriptor target(
        ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!target)
        fail_file("create", to, errno);
    if (int error = give_to_server_user(target.get(), data_directory); error != 0)
        fail_file("set the owner of", to, error);
    for (ssize_t copied = 1; copied > 0;) {
        throw_if_interrupted();
        copied = ::copy_file_range(source.get(), nullptr, target.get(), nullptr, copy_step, 0);
        if (copied < 0)
            fail_file("copy to", to, errno);
    }
    if (int error = target.close_checked(); error != 0)
        fail_file("copy to", to, error);
}

void move_file(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0)
        fail_file("move to", to, errno);
}

void remove_file(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        fail_file("remove", path, errno);
}

// What one run of the module's document restore did.
struct Run {
    bool good = false;
    std::vector<TracedNote> notes;
    // The document that it ended at.
    const TracedNote* failed_note() const {
        return !good && !failure && !notes.empty() && notes.back().step == NoteStep::not_copied
                   ? &notes.back()
                   : nullptr;
    }
    std::string reason;                 // of a run that is not good
    std::optional<OtherMoment> other;   // that the server took the time for
    std::optional<ClientError> failure; // the module's process died
};

class DocumentRestore {
  public:
    DocumentRestore(const OperationContext& context, const DocumentRequest& request)
        : m_context(context), m_request(request), m_list(context.ini.data_directory) {}
    DocumentsResult restore();
    DocumentsResult find(OwedDatabases& owed);

  private:
    // Times between which a document was deleted or changed, and the documents.
    using Intervals = std::map<std::pair<std::time_t, std::time_t>, std::vector<NoteId>>;

    void begin(std::uint64_t room);
    std::string folder(const char* name) const { return m_temporary->path() + "/" + name; }
    std::string file(const char* name) const {
        return folder(name) + "/" + name_of(m_request.item.path);
    }
    void extract();
    void check_moment();
    static void require_meant(const Run& run);
    std::string announce(ModuleSession& session, const std::string& live);
    Run operate(const std::string& live, DocumentKind kind, const std::string& since,
                const std::vector<NoteId>& ids, bool keep_copy);
    void take_live_copy(OwedDatabases& owed);
    void prepare_live_copy(ModuleSession& session, const std::string& incomplete);
    std::vector<NoteId> search(const PointInTime& since, const std::vector<NoteId>& ids);
    void narrow(Intervals& intervals, const std::vector<NoteId>& ids);
    std::optional<PointInTime> between(std::time_t first, std::time_t last) const;
    void add_notes(const Run& run);
    void add_others(bool ended_early);
    void restore_deleted();
    void restore_changed();
    void check_start(const Run& run) const;
    Run replace(const std::vector<NoteId>& ids, const PointInTime& before);
    void note_lost_afterwards(const std::vector<NoteId>& ids, const PointInTime& before);
    bool drop_unreadable(NoteId id);
    Run operate_on_copy(const std::vector<NoteId>& ids);
    std::vector<NoteId> readable_in_the_set();

    const OperationContext& m_context;
    const DocumentRequest& m_request;
    std::optional<TemporaryDirectory> m_temporary;
    NoteIdList m_list;
    bool m_finishing = false; // the server was told to restore
    std::set<NoteId> m_known; // of the listed ids: those that the set has
    DocumentsResult m_result;
};

void DocumentRestore::begin(std::uint64_t room) {
    if (m_request.kind == DocumentKind::changed)
        m_list.require_none();
    m_temporary.emplace(absolute_path(m_context.tmp_dir), m_context.ini.data_directory);
    RoomCount count;
    count.at(m_temporary->path()).needed += room;
    require_room(count.list());
    for (const char* name : {work_folder, set_folder, live_folder, original_folder})
        if (::mkdir(folder(name).c_str(), 0700) != 0 ||
            give_folder_to_server_user(folder(name), m_context.ini.data_directory) != 0)
            fail_file("create", folder(name), errno);
}

// Takes the set's copy out of the store, whole or not at all.
void DocumentRestore::extract() {
    std::string problem;
    SafeFolder root(folder(set_folder));
    FileDescriptor at = root.open_folder("", problem);
    if (!at)
        throw ClientError(ExitCode::failed, problem);
    SafeFile copy(std::move(at), name_of(m_request.item.path));
    WrittenContent written;
    problem = copy.create();
    if (int error = give_to_server_user(copy.descriptor(), m_context.ini.data_directory);
        problem.empty() && error != 0)
        problem = system_error_text(error);
    if (problem.empty()) {
        Progress progress(1);
        progress.next_database();
        written = write_content(m_context.store, m_request.item, copy, [&](std::uint64_t bytes) {
            throw_if_interrupted();
            progress.add_bytes(bytes);
        });
        problem = written.problem;
    }
    if (!written.damage.empty())
        throw ClientError(ExitCode::damage_found,
                          "the copy of " + for_terminal(m_request.item.path) +
                              " is damaged in the store: " + for_terminal(written.damage),
                          "nothing was done; `qrtln verify` tells more, an older set (--at) may "
                          "have a whole copy");
    if (problem.empty())
        problem = copy.commit(nullptr, false);
    if (!problem.empty())
        throw ClientError(ExitCode::failed, "cannot write the set's copy of " +
                                                for_terminal(m_request.item.path) + ": " + problem);
}

// Where the set's copy goes. The folder that is announced has the live database.
std::string DocumentRestore::announce(ModuleSession& session, const std::string& live) {
    session.forget_reasons();
    ModuleItem answer = session.host().set_item(DB_ITEM_TYPE_DIRECTORY, folder_of(live));
    if (answer.status == DB_NUM_I_OK)
        answer = session.host().set_item(DB_ITEM_TYPE_FILE, m_request.item.path);
    if (answer.status != DB_NUM_I_OK)
        throw ClientError(ExitCode::server_error, "the module refused " +
                                                      for_terminal(m_request.item.path) + ": " +
                                                      for_terminal(session.reason()));
    session.item_begun();
    if (!is_below(answer.name, folder(work_folder)) || !path_problem(answer.name).empty() ||
        name_of(answer.name) != name_of(m_request.item.path))
        throw ClientError(ExitCode::server_error, "the module wants the copy written to " +
                                                      for_terminal(answer.name) +
                                                      ", which is no place for it");
    return answer.name;
}

// One document restore from the set's copy into the database `live`. The copy is there afterwards
// if it is to be kept: the module removes it at the end of some restores.
Run DocumentRestore::operate(const std::string& live, DocumentKind kind, const std::string& since,
                             const std::vector<NoteId>& ids, bool keep_copy) {
    bool changed = kind == DocumentKind::changed;
    DocumentTrace trace;
    m_finishing = false;
    ++m_result.operations;
    Run run;
    ModuleSession session(
        m_context,
        [&](const std::string& line) {
            if (std::optional<OtherMoment> other = parse_other_moment(line))
                run.other = other;
        },
        [&](const std::string& line) { trace.take(line); });
    if (session.init(DB_TYPE_RST, DB_LEVEL_FULL,
                     {"TMP_DIR=" + folder(work_folder), "DATABASE=NOTES",
                      (changed ? "INFO=chgd=" : "INFO=deld=") + since}) != DB_NUM_I_OK)
        session.report_failed_start("restore of documents", session.reason());
    std::string place = announce(session, live);
    // The module removes its own name of the copy.
    bool linked = keep_copy && changed && ::link(file(set_folder).c_str(), place.c_str()) == 0;
    if (keep_copy && changed && !linked)
        copy_file(file(set_folder), place, m_context.ini.data_directory);
    else if (!linked)
        move_file(file(set_folder), place);
    throw_if_interrupted();
    if (changed)
        m_list.place(ids);
    m_finishing = true;
    try {
        run.good = session.finish(DB_ITEM_SUCCESS) == DB_NUM_I_OK;
        if (!run.good)
            run.reason = session.reason();
    } catch (const ClientError& failure) {
        run.failure = failure;
        run.reason = failure.what();
    }
    run.notes = trace.notes();
    if (int error = m_list.remove(); error != 0)
        m_result.warnings.push_back("the list of note ids could not be removed from the data "
                                    "directory: " +
                                    system_error_text(error));
    if (keep_copy && !changed && exists(place))
        move_file(place, file(set_folder));
    else
        ::unlink(place.c_str()); // in the private folder, which goes at the end
    if (!run.failure && session.close(run.good) != DB_NUM_I_OK)
        m_result.warnings.push_back("the server did not close the restore: " + session.reason());
    return run;
}

void DocumentRestore::require_meant(const Run& run) {
    if (run.other)
        throw ClientError(ExitCode::items_failed,
                          "documents cannot be told by --since: " + describe(*run.other) +
                              "; no document was changed",
                          other_moment_hint);
}

// Asks the server about --since before anything else is touched, in two copies of the set's copy:
// none of its documents is deleted in the one and there in the other. What else is wrong shows in
// the restore.
void DocumentRestore::check_moment() {
    throw_if_interrupted();
    copy_file(file(set_folder), file(original_folder), m_context.ini.data_directory);
    Run run =
        operate(file(original_folder), DocumentKind::deleted, m_request.since.digits, {}, true);
    require_meant(run);
    if (run.failure)
        throw *run.failure;
}

DocumentsResult DocumentRestore::restore() {
    begin(2 * m_request.item.size); // the set's copy, and the copy that it is tried in
    extract();
    check_moment();
    m_request.kind == DocumentKind::changed ? restore_changed() : restore_deleted();
    return std::move(m_result);
}

void DocumentRestore::check_start(const Run& run) const {
    if (run.good || !run.notes.empty())
        return;
    if (run.failure)
        throw *run.failure;
    throw ClientError(ExitCode::server_error,
                      "the server cannot restore documents into " +
                          for_terminal(m_request.item.path) + ": " + for_terminal(run.reason),
                      "no document was changed; is the database online? --verbose and --trace "
                      "show what the module did");
}

void DocumentRestore::restore_deleted() {
    for (std::size_t unreadable = 0;; ++unreadable) {
        Run run = operate(m_request.item.path, m_request.kind, m_request.since.digits, {}, true);
        if (m_result.documents.empty())
            check_start(run);
        add_notes(run);
        m_result.failure = run.failure;
        const TracedNote* failed = run.failed_note();
        m_result.ended_at_failure = failed != nullptr;
        if (failed == nullptr || unreadable == maximal_unreadable || !drop_unreadable(failed->id))
            return;
    }
}

// Takes a document out of the set's copy that cannot be read there: to be replaced by itself it is
// deleted first, and then the copy fails. Returns whether it is out.
bool DocumentRestore::drop_unreadable(NoteId id) {
    try {
        Run run = operate_on_copy({id});
        const TracedNote* failed = run.failed_note();
        if (failed == nullptr || failed->id != id || !failed->deleted)
            return false; // it is the live database that does not take it
        move_file(file(original_folder), file(set_folder));
        return true;
    } catch (const ClientError& failure) {
        if (interrupt_signal() != 0) // what came back is told all the same
            m_result.failure = failure;
        else
            m_result.warnings.push_back("the document " + note_id_text(id) +
                                        " was not taken out of the set's copy: " + failure.what());
    }
    return false;
}

// Replaces documents in a copy of the set's copy by themselves.
Run DocumentRestore::operate_on_copy(const std::vector<NoteId>& ids) {
    throw_if_interrupted();
    remove_file(file(original_folder));
    copy_file(file(set_folder), file(original_folder), m_context.ini.data_directory);
    return operate(file(original_folder), DocumentKind::changed, earliest_point, ids, true);
}

// The listed documents that the set has and that the server can copy from there, found out before
// any is deleted from the live database.
std::vector<NoteId> DocumentRestore::readable_in_the_set() {
    std::vector<NoteId> ids = m_request.ids;
    while (!ids.empty()) {
        Run run = operate_on_copy(ids);
        check_start(run);
        if (run.failure)
            throw *run.failure;
        for (const TracedNote& note : run.notes)
            m_known.insert(note.id);
        if (run.good)
            break;
        if (run.notes.back().step == NoteStep::copying)
            break; // all are copied, and what failed was the copy's own end
        NoteId failed = run.notes.back().id;
        m_result.documents.push_back(
            {failed, DocumentOutcome::failed, "it cannot be copied from the set: " + run.reason});
        std::erase(ids, failed);
        if (m_result.documents.size() > maximal_unreadable) {
            m_result.ended_at_failure = true;
            return {};
        }
    }
    std::erase_if(ids, [this](NoteId id) { return !m_known.contains(id); });
    return ids;
}

void DocumentRestore::restore_changed() {
    std::vector<NoteId> ids = readable_in_the_set();
    if (!ids.empty()) {
        // The server takes the time of the deletion for local, like all others.
        std::optional<PointInTime> before;
        for (std::time_t time = std::time(nullptr); !before; time -= quarter_hour)
            before = point_in_time(time);
        m_request.note_lost(ids, *before);
        Run run = replace(ids, *before);
        m_result.failure = run.failure;
        add_notes(run);
        m_result.ended_at_failure = m_result.ended_at_failure || !run.good;
        std::vector<NoteId> lost;
        for (const DocumentResult& document : m_result.documents)
            if (document.outcome == DocumentOutcome::lost ||
                document.outcome == DocumentOutcome::unknown)
                lost.push_back(document.id);
        note_lost_afterwards(lost, *before);
    }
    add_others(m_result.ended_at_failure);
}

Run DocumentRestore::replace(const std::vector<NoteId>& ids, const PointInTime& before) {
    try {
        Run run = operate(m_request.item.path, m_request.kind, m_request.since.digits, ids, false);
        if (!run.failure && run.notes.empty())
            note_lost_afterwards({}, before);
        check_start(run);
        return run;
    } catch (...) {
        if (!m_finishing)
            note_lost_afterwards({}, before);
        throw;
    }
}

// Where that fails, the note still has them all.
void DocumentRestore::note_lost_afterwards(const std::vector<NoteId>& ids,
                                           const PointInTime& before) {
    try {
        m_request.note_lost(ids, before);
    } catch (const ClientError& failure) {
        m_result.warnings.emplace_back(failure.what());
    }
}

DocumentOutcome outcome_of(const TracedNote& note, DocumentKind kind) {
    switch (note.step) {
    case NoteStep::unread:
        return DocumentOutcome::back_unread;
    case NoteStep::not_unread:
        return DocumentOutcome::back;
    case NoteStep::not_deleted:
        return DocumentOutcome::failed;
    case NoteStep::not_copied:
        return note.deleted ? DocumentOutcome::lost : DocumentOutcome::failed;
    case NoteStep::copying:
        return kind == DocumentKind::deleted ? DocumentOutcome::back : DocumentOutcome::replaced;
    case NoteStep::deleting:
        break;
    }
    return DocumentOutcome::unknown;
}

void DocumentRestore::add_notes(const Run& run) {
    bool failed_note = false;
    for (const TracedNote& note : run.notes) {
        DocumentResult document;
        document.id = note.id;
        document.outcome = outcome_of(note, m_request.kind);
        // A copy of which no end was told.
        if (run.failure && &note == &run.notes.back() && note.step == NoteStep::copying)
            document.outcome = DocumentOutcome::unknown;
        if (document.outcome == DocumentOutcome::failed ||
            document.outcome == DocumentOutcome::lost) {
            document.reason = run.reason;
            failed_note = true;
        }
        m_result.documents.push_back(std::move(document));
    }
    if (!run.good && !run.failure && !failed_note)
        m_result.warnings.push_back(
            (run.notes.empty() ? "the restore did not go on behind the document that failed: "
                               : "the documents are back, but the module reports: ") +
            run.reason);
}

// What became of the ids that the module did not get to: it tells nothing about those.
void DocumentRestore::add_others(bool ended_early) {
    std::set<NoteId> done;
    for (const DocumentResult& document : m_result.documents)
        done.insert(document.id);
    for (NoteId id : m_request.ids)
        if (!done.contains(id)) {
            DocumentResult document;
            document.id = id;
            document.outcome = ended_early            ? DocumentOutcome::not_reached
                               : m_known.contains(id) ? DocumentOutcome::unchanged
                                                      : DocumentOutcome::missing;
            m_result.documents.push_back(std::move(document));
        }
}

// A consistent copy of the live database, made as for a backup at copy level.
void DocumentRestore::take_live_copy(OwedDatabases& owed) {
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
             .take_copies("copy of the live database", folder(work_folder),
                          {{path, arguments[0].value}}, take)
             .empty())
        throw ClientError(ExitCode::server_error, "the module does not hand out " +
                                                      for_terminal(path) + ": " +
                                                      for_terminal(session.reason()));
}

void DocumentRestore::prepare_live_copy(ModuleSession& session, const std::string& incomplete) {
    const std::string& path = m_request.item.path;
    Preparation prepared = session.prepare(path);
    throw_if_interrupted();
    if (!prepared.usable || !is_below(prepared.item.name, folder(work_folder)) ||
        !incomplete.empty())
        throw ClientError(ExitCode::server_error,
                          "the server cannot copy the live database " + for_terminal(path) + ": " +
                              for_terminal(incomplete.empty() ? session.reason() : incomplete));
    // The module removes its own name of the copy.
    if (::link(prepared.item.name.c_str(), file(live_folder).c_str()) != 0)
        fail_file("keep the copy of", path, errno);
}

// What a restore since then would bring back.
std::vector<NoteId> DocumentRestore::search(const PointInTime& since,
                                            const std::vector<NoteId>& ids) {
    throw_if_interrupted();
    remove_file(file(original_folder));
    copy_file(file(live_folder), file(original_folder), m_context.ini.data_directory);
    Run run = operate(file(original_folder), m_request.kind, since.digits, ids, true);
    require_meant(run); // the zones may differ at another time of the year
    if (run.failure)
        throw *run.failure;
    const TracedNote* failed = run.failed_note();
    if (m_request.kind == DocumentKind::deleted && failed != nullptr &&
        m_result.documents.size() < maximal_unreadable && drop_unreadable(failed->id)) {
        m_result.documents.push_back({failed->id, DocumentOutcome::failed, run.reason});
        return search(since, ids);
    }
    if (!run.good)
        throw ClientError(ExitCode::server_error,
                          "the server cannot restore documents into a copy of " +
                              for_terminal(m_request.item.path) + ": " +
                              (failed != nullptr ? note_id_text(failed->id) + ": " : "") +
                              for_terminal(run.reason),
                          "--verbose and --trace show what the module did");
    std::vector<NoteId> found;
    for (const TracedNote& note : run.notes)
        found.push_back(note.id);
    return found;
}

// The minute that is next to the middle of the two, among those that can be told to the server.
std::optional<PointInTime> DocumentRestore::between(std::time_t first, std::time_t last) const {
    std::time_t middle = first + (last - first) / (2 * minute) * minute;
    for (std::time_t away = 0; middle - away > first || middle + away < last; away += minute)
        for (std::time_t time : {middle - away, middle + away})
            if (time > first && time < last)
                if (std::optional<PointInTime> point = point_in_time(time))
                    return point;
    return std::nullopt;
}

// Halves the widest interval, and every other that the same run tells about, as long as that helps.
void DocumentRestore::narrow(Intervals& intervals, const std::vector<NoteId>& listed) {
    for (unsigned searches = 0; searches < maximal_searches; ++searches) {
        std::optional<PointInTime> point;
        std::time_t widest = 0;
        for (const auto& [interval, ids] : intervals)
            if (interval.second - interval.first > std::max(widest, minute))
                if (std::optional<PointInTime> middle = between(interval.first, interval.second)) {
                    point = middle;
                    widest = interval.second - interval.first;
                }
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

DocumentsResult DocumentRestore::find(OwedDatabases& owed) {
    struct stat live {};
    if (::stat(m_request.item.path.c_str(), &live) != 0)
        fail_file("look at", m_request.item.path, errno);
    // Each once as it is, and once to be worked on.
    begin(2 * (m_request.item.size + static_cast<std::uint64_t>(live.st_size)));
    extract();
    check_moment();
    take_live_copy(owed);
    std::time_t now = std::time(nullptr);
    bool changed = m_request.kind == DocumentKind::changed;
    std::vector<NoteId> listed;
    if (changed)
        listed = readable_in_the_set();
    std::vector<NoteId> candidates;
    if (!changed || !listed.empty())
        candidates = search(m_request.since, listed);
    Intervals intervals;
    if (!candidates.empty()) {
        std::time_t end = m_request.since.time + (now - m_request.since.time) / minute * minute;
        intervals[{m_request.since.time, end + minute}] = candidates;
        narrow(intervals, listed);
    }
    std::map<NoteId, std::pair<std::time_t, std::time_t>> times;
    for (const auto& [interval, ids] : intervals)
        for (NoteId id : ids)
            times[id] = interval;
    for (NoteId id : candidates)
        m_result.documents.push_back(
            {id, DocumentOutcome::candidate, "", times[id].first, times[id].second});
    if (changed)
        add_others(m_result.ended_at_failure);
    return std::move(m_result);
}

} // namespace

DocumentsResult restore_documents(const OperationContext& context, const DocumentRequest& request) {
    return DocumentRestore(context, request).restore();
}

DocumentsResult find_documents(const OperationContext& context, OwedDatabases& owed,
                               const DocumentRequest& request) {
    return DocumentRestore(context, request).find(owed);
}

} // namespace qrtln
