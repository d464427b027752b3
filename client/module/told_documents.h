// What the module's trace tells about the documents of a restore, one by one.
#pragma once

#include "client/domino/note_ids.h"

#include <string>
#include <vector>

namespace qrtln {

// How far the module got with a document, as its last line about it tells.
enum class NoteStep {
    copying,     // into the live database: done if a later line does not tell otherwise
    unread,      // copied, and marked unread, or it was unread already
    not_unread,  // copied, but not marked unread
    deleting,    // from the live database, before its copy takes the place
    not_deleted, // the deletion failed: as it was
    not_copied,  // the copy failed
};

struct TracedNote {
    NoteId id = 0;
    NoteStep step = NoteStep::copying;
    bool deleted = false; // from the live database, to be replaced
};

class DocumentTrace {
  public:
    // Takes a line of the trace; those about anything else are ignored.
    void take(const std::string& line);

    const std::vector<TracedNote>& notes() const { return m_notes; } // in the order of the work

  private:
    void mark_last(NoteStep step);

    std::vector<TracedNote> m_notes;
};

} // namespace qrtln
