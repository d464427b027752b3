#include "client/documents/trials.h"

#include "client/base/interrupt.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

// Before any document was written.
constexpr const char* earliest_point = "199001010000";

} // namespace

void DocumentTrials::check_moment() {
    throw_if_interrupted();
    m_copies.renew_original(m_copies.set_copy());
    DocumentRun run =
        m_module.run(m_copies.original(), DocumentKind::deleted, m_request.since.digits, {}, true);
    require_meant(run);
    if (run.failure)
        throw *run.failure;
}

// In a copy of the set's copy.
DocumentRun DocumentTrials::replace_by_itself(const std::vector<NoteId>& ids) {
    throw_if_interrupted();
    m_copies.renew_original(m_copies.set_copy());
    return m_module.run(m_copies.original(), DocumentKind::changed, earliest_point, ids, true);
}

std::vector<NoteId> DocumentTrials::readable_in_the_set() {
    std::vector<NoteId> ids = m_request.ids;
    while (!ids.empty()) {
        DocumentRun run = replace_by_itself(ids);
        require_started(run, m_request.item);
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

bool DocumentTrials::drop_unreadable(NoteId id) {
    try {
        DocumentRun run = replace_by_itself({id});
        const TracedNote* failed = run.failed_note();
        if (failed == nullptr || failed->id != id || !failed->deleted)
            return false; // it is the live database that does not take it
        m_copies.keep_original_as_set_copy();
        return true;
    } catch (const ClientError& failure) {
        if (interrupt_signal() != 0) // what came back is told all the same
            m_result.failure = failure;
        else
            m_result.warnings.push_back(
                fmt::format("the document {} was not taken out of the set's copy: {}",
                            note_id_text(id), failure.what()));
    }
    return false;
}

// What became of the ids that the module did not get to: it tells nothing about those.
void DocumentTrials::add_others(bool ended_early) {
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

} // namespace qrtln
