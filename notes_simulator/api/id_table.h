// Tables of note ids behind handles.
#pragma once

#include "notes_simulator/engine/database.h"

#include <cstddef>
#include <set>

namespace notes_sim {

/// A set of note ids in ascending order, with the cursor of IDScan.
class IdTable {
  public:
    explicit IdTable(const std::vector<NoteId>& ids) : m_ids(ids.begin(), ids.end()) {}

    std::size_t entries() const { return m_ids.size(); }
    bool contains(NoteId id) const { return m_ids.contains(id); }
    /// Whether the id was not in the table before.
    bool insert(NoteId id) { return m_ids.insert(id).second; }
    /// Keeps the ids of which keep says so.
    template <class Keep>
    void keepIf(Keep keep) {
        std::erase_if(m_ids, [&keep](NoteId id) { return !keep(id); });
    }
    const std::set<NoteId>& ids() const { return m_ids; }
    /// The first id, or the one after that which was returned last. False at the end.
    bool scan(bool first, NoteId* id);

  private:
    std::set<NoteId> m_ids;
    bool m_begun = false;
    NoteId m_last = 0;
};

} // namespace notes_sim
