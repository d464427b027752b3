// Restores that are tried in copies: whether the server takes --since as it is meant, and which
// documents it can copy from the set. One that it cannot is taken out of the set's copy.
#pragma once

#include "client/documents/copies.h"
#include "client/documents/module_run.h"
#include "client/documents/operation.h"

#include <cstddef>
#include <set>
#include <vector>

namespace qrtln {

// Documents that the server cannot read in the set's copy, until the restore gives up.
inline constexpr std::size_t maximal_unreadable = 100;

class DocumentTrials {
  public:
    // All of them outlive it.
    DocumentTrials(const DocumentRequest& request, DocumentCopies& copies, DocumentModule& module,
                   DocumentsResult& result)
        : m_request(request), m_copies(copies), m_module(module), m_result(result) {}

    // Asks the server about --since before anything else is touched, in two copies of the set's
    // copy: none of its documents is deleted in the one and there in the other. What else is wrong
    // shows in the restore. Throws ClientError(items_failed) when it takes it for another time.
    void check_moment();

    // The listed documents that the set has and that the server can copy from there, found out
    // before any is deleted from the live database. The others are in the result.
    std::vector<NoteId> readable_in_the_set();

    // Takes a document out of the set's copy that cannot be read there: to be replaced by itself it
    // is deleted first, and then the copy fails. Returns whether it is out.
    bool drop_unreadable(NoteId id);

    // Adds what became of the listed ids that no run told of.
    void add_others(bool ended_early);

  private:
    DocumentRun replace_by_itself(const std::vector<NoteId>& ids);

    const DocumentRequest& m_request;
    DocumentCopies& m_copies;
    DocumentModule& m_module;
    DocumentsResult& m_result;
    std::set<NoteId> m_known; // of the listed ids: those that the set has
};

} // namespace qrtln
