// The document-level restore of the module: deleted documents come back into the live database, or
// changed ones are replaced, from the copy of the database that a set has.
#pragma once

#include "client/base/error.h"
#include "client/domino/note_ids.h"
#include "client/domino/point_in_time.h"
#include "client/module/session.h"
#include "client/sets/manifest.h"
#include "client/sets/owed.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

enum class DocumentKind { deleted, changed };

struct DocumentRequest {
    DocumentKind kind = DocumentKind::deleted;
    ManifestItem item; // the database, stored, below the data directory
    PointInTime since;
    std::vector<NoteId> ids; // of changed ones: which
    // Hears which documents may be deleted from the live database and not replaced, and a minute
    // before that: first those that are about to be, and what it throws then keeps them from it;
    // afterwards those that are.
    std::function<void(const std::vector<NoteId>& ids, const PointInTime& before)> note_lost;
};

enum class DocumentOutcome {
    candidate,   // of a dry run: it would come back
    back_unread, // a deleted one is back, and marked unread
    back,        // it is back, but not marked unread
    replaced,    // a changed one is as it was in the set
    unchanged,   // in the set, but not changed since the time, or deleted
    missing,     // not in the set
    failed,      // as it was before
    lost,        // deleted from the live database, and its copy could not be put there
    not_reached, // the restore ended before it
    unknown,     // the server's library died at it
};

struct DocumentResult {
    NoteId id = 0;
    DocumentOutcome outcome = DocumentOutcome::unknown;
    std::string reason; // of failures
    // Of a candidate: it was deleted or changed at `earliest` or later, and before `latest`.
    std::time_t earliest = 0;
    std::time_t latest = 0;
};

struct DocumentsResult {
    std::vector<DocumentResult> documents; // those that came back first, in the server's order
    std::vector<std::string> warnings;
    std::optional<ClientError> failure; // what ended the restore, after some documents
    bool ended_at_failure = false;      // of a document: those behind it are as they were
    unsigned operations = 0;            // of the module
};

// Restores into the live database. The set's copy is checked before the server hears of it. The
// module ends at the first document that it cannot copy. One of the deleted that cannot be read in
// the set's copy is taken out of that, and the restore goes on behind it. Changed ones are tried in
// copies first: what cannot be read in the set is not deleted from the live database. Throws
// ClientError when nothing was done to the live database. The copy and the list of ids are gone
// afterwards in every case.
DocumentsResult restore_documents(const OperationContext& context, const DocumentRequest& request);

// Tells what the restore would bring back, and when each of these documents was deleted or changed,
// to the minute: the same restore runs into copies of a consistent copy of the live database, again
// and again, with later and later times. As that consistent copy is made as for a backup, the
// database is owed afterwards. The number of runs is limited; when they are used up, times are
// less exact. REQUIRES: the store is locked for writing.
DocumentsResult find_documents(const OperationContext& context, OwedDatabases& owed,
                               const DocumentRequest& request);

} // namespace qrtln
