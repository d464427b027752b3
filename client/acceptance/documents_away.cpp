#include "client/acceptance/documents_away.h"

#include <fmt/format.h>

namespace qrtln::acceptance {

DocumentsAway::DocumentsAway(Teller& teller, const OpenDatabase& live, const OpenDatabase& source,
                             const std::string& shown)
    : m_teller(teller), m_live(live), m_source(source), m_shown(shown) {
    teller.calling(fmt::format("NSFDbIDGet({})", m_shown));
    notes_api.NSFDbIDGet(live.handle(), &m_live_id);
    notes_api.NSFDbIDGet(source.handle(), &m_source_id);
}

DocumentsAway::~DocumentsAway() {
    const std::set<NOTEID> away = m_away;
    for (NOTEID id : away) {
        m_teller.undoing(fmt::format("NSFDbCopyNote({})", m_shown));
        if (copy(id) == kNotesNoError)
            m_away.erase(id);
    }
    tell_what_is_away();
}

void DocumentsAway::take(NOTEID id) {
    m_teller.calling(
        fmt::format("NSFNoteDelete({})", m_shown)); // which may be the end: before it is away
    m_away.insert(id);
    tell_what_is_away();
    const STATUS status = notes_api.NSFNoteDelete(m_live.handle(), id, 0);
    if (status != kNotesNoError)
        m_away.erase(id);
    check("NSFNoteDelete", status);
}

void DocumentsAway::bring_back(NOTEID id) {
    m_teller.calling(fmt::format("NSFDbCopyNote({})", m_shown));
    check("NSFDbCopyNote", copy(id));
    m_away.erase(id);
    tell_what_is_away();
}

STATUS DocumentsAway::copy(NOTEID id) {
    return notes_api.NSFDbCopyNote(m_source.handle(), &m_source_id, nullptr, id, m_live.handle(),
                                   &m_live_id, nullptr, nullptr, nullptr);
}

void DocumentsAway::check(const char* call, STATUS status) {
    if (status != kNotesNoError)
        m_teller.stop("documents", fmt::format("{} in {}: {}", call, m_shown, status_text(status)),
                      {{call, status}});
}

void DocumentsAway::tell_what_is_away() noexcept {
    m_teller.leaves("documents",
                    m_away.empty()
                        ? ""
                        : fmt::format("{} documents of {} are deleted, and in the copy quiet.nsf",
                                      m_away.size(), m_shown));
}

} // namespace qrtln::acceptance
