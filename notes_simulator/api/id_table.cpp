#include "notes_simulator/api/id_table.h"

namespace notes_sim {

bool IdTable::scan(bool first, NoteId* id) {
    const auto next = first || !m_begun ? m_ids.begin() : m_ids.upper_bound(m_last);
    m_begun = true;
    if (next == m_ids.end()) {
        return false;
    }
    m_last = *next;
    *id = *next;
    return true;
}

} // namespace notes_sim
