// The dry run: what a restore would bring back, and when each of these documents was deleted or
// changed. The same restore runs into copies of a consistent copy of the live database, again and
// again, with later and later times.
#pragma once

#include "client/documents/copies.h"
#include "client/documents/module_run.h"
#include "client/documents/operation.h"
#include "client/documents/trials.h"
#include "client/sets/owed.h"

#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

class DocumentSearch {
  public:
    // All of them outlive it.
    DocumentSearch(const OperationContext& context, const DocumentRequest& request,
                   DocumentCopies& copies, DocumentModule& module, DocumentTrials& trials,
                   DocumentsResult& result)
        : m_context(context), m_request(request), m_copies(copies), m_module(module),
          m_trials(trials), m_result(result) {}

    // Makes a consistent copy of the live database, as for a backup at copy level. REQUIRES: the
    // store is locked for writing.
    void take_live_copy(OwedDatabases& owed);
    // Fills the result. REQUIRES: the copies are there.
    void find();

  private:
    // Times between which a document was deleted or changed, and the documents.
    using Interval = std::pair<std::time_t, std::time_t>;
    using Intervals = std::map<Interval, std::vector<NoteId>>;

    void prepare_live_copy(ModuleSession& session, const std::string& incomplete);
    std::vector<NoteId> search(const PointInTime& since, const std::vector<NoteId>& ids);
    void narrow(Intervals& intervals, const std::vector<NoteId>& ids);
    static std::optional<PointInTime> between(std::time_t first, std::time_t last);
    static std::optional<PointInTime> middle_of_widest(const Intervals& intervals);

    const OperationContext& m_context;
    const DocumentRequest& m_request;
    DocumentCopies& m_copies;
    DocumentModule& m_module;
    DocumentTrials& m_trials;
    DocumentsResult& m_result;
};

} // namespace qrtln
