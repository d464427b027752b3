// One run of the module's document restore: from the set's copy into a database, the live one or a
// copy that stands in for it.
#pragma once

#include "client/base/error.h"
#include "client/documents/copies.h"
#include "client/documents/operation.h"
#include "client/domino/note_ids.h"
#include "client/module/session.h"
#include "client/module/told.h"

#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// What the run did.
struct DocumentRun {
    bool good = false;
    std::vector<TracedNote> notes;
    std::string reason;                 // of a run that is not good
    std::optional<OtherMoment> other;   // that the server took the time for
    std::optional<ClientError> failure; // the module's process died
    // The document that it ended at; nullptr: at none.
    const TracedNote* failed_note() const {
        return !good && !failure && !notes.empty() && notes.back().step == NoteStep::not_copied
                   ? &notes.back()
                   : nullptr;
    }
};

class DocumentModule {
  public:
    // All of them outlive it. `result` counts the runs and takes their warnings.
    DocumentModule(const OperationContext& context, const DocumentRequest& request,
                   DocumentCopies& copies, DocumentsResult& result)
        : m_context(context), m_request(request), m_copies(copies), m_result(result),
          m_list(context.ini.data_directory) {}

    // Throws ClientError where a list of ids lies in the data directory already: only a restore of
    // changed documents needs one.
    void require_no_list() const;

    // Restores into the database `live`. `since` is as PointInTime has it, `ids` are those of the
    // changed documents. The set's copy is there afterwards if it is to be kept: the module removes
    // it at the end of some restores. Throws ClientError where the module did not get as far as
    // the documents.
    DocumentRun run(const std::string& live, DocumentKind kind, const std::string& since,
                    const std::vector<NoteId>& ids, bool keep_copy);
    // Whether the server was told to restore, in the last run.
    bool was_told_to_restore() const { return m_finishing; }

  private:
    std::string announce(ModuleSession& session, const std::string& live);
    void finish(ModuleSession& session, DocumentRun& run);

    const OperationContext& m_context;
    const DocumentRequest& m_request;
    DocumentCopies& m_copies;
    DocumentsResult& m_result;
    NoteIdList m_list;
    bool m_finishing = false;
};

// Throws ClientError(items_failed) when the server took the time of --since for another one.
void require_meant(const DocumentRun& run);

// Throws when a run ended before it told of any document: why, and that none was changed.
void require_started(const DocumentRun& run, const ManifestItem& database);

} // namespace qrtln
