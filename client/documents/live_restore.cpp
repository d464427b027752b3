#include "client/documents/live_restore.h"

#include "client/base/error.h"
#include "client/domino/local_time.h"

#include <ctime>

namespace qrtln {

namespace {

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

} // namespace

void LiveRestore::restore_deleted() {
    for (std::size_t unreadable = 0;; ++unreadable) {
        DocumentRun run =
            m_module.run(m_request.item.path, m_request.kind, m_request.since.digits, {}, true);
        if (m_result.documents.empty())
            require_started(run, m_request.item);
        add_notes(run);
        m_result.failure = run.failure;
        const TracedNote* failed = run.failed_note();
        m_result.ended_at_failure = failed != nullptr;
        if (failed == nullptr || unreadable == maximal_unreadable ||
            !m_trials.drop_unreadable(failed->id))
            return;
    }
}

void LiveRestore::restore_changed() {
    std::vector<NoteId> ids = m_trials.readable_in_the_set();
    if (!ids.empty()) {
        // The server takes the time of the deletion for local, like all others.
        const PointInTime before = point_in_time(shown_once_until(std::time(nullptr))).value();
        m_request.note_lost(ids, before);
        DocumentRun run = replace(ids, before);
        m_result.failure = run.failure;
        add_notes(run);
        m_result.ended_at_failure = m_result.ended_at_failure || !run.good;
        std::vector<NoteId> lost;
        for (const DocumentResult& document : m_result.documents)
            if (document.outcome == DocumentOutcome::lost ||
                document.outcome == DocumentOutcome::unknown)
                lost.push_back(document.id);
        note_lost_afterwards(lost, before);
    }
    m_trials.add_others(m_result.ended_at_failure);
}

DocumentRun LiveRestore::replace(const std::vector<NoteId>& ids, const PointInTime& before) {
    try {
        DocumentRun run =
            m_module.run(m_request.item.path, m_request.kind, m_request.since.digits, ids, false);
        if (!run.failure && run.notes.empty())
            note_lost_afterwards({}, before);
        require_started(run, m_request.item);
        return run;
    } catch (...) {
        if (!m_module.was_told_to_restore())
            note_lost_afterwards({}, before);
        throw;
    }
}

// Where that fails, the note still has them all.
void LiveRestore::note_lost_afterwards(const std::vector<NoteId>& ids, const PointInTime& before) {
    try {
        m_request.note_lost(ids, before);
    } catch (const ClientError& failure) {
        m_result.warnings.emplace_back(failure.what());
    }
}

void LiveRestore::add_notes(const DocumentRun& run) {
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

} // namespace qrtln
