// The restore into the live database.
#pragma once

#include "client/documents/copies.h"
#include "client/documents/module_run.h"
#include "client/documents/operation.h"
#include "client/documents/trials.h"

#include <vector>

namespace qrtln {

class LiveRestore {
  public:
    // All of them outlive it.
    LiveRestore(const DocumentRequest& request, DocumentModule& module, DocumentTrials& trials,
                DocumentsResult& result)
        : m_request(request), m_module(module), m_trials(trials), m_result(result) {}

    // Brings deleted documents back, behind those that cannot be read in the set, too.
    void restore_deleted();
    // Replaces the listed documents that can be read in the set. Which of them may be lost in that
    // is noted before.
    void restore_changed();

  private:
    DocumentRun replace(const std::vector<NoteId>& ids, const PointInTime& before);
    void note_lost_afterwards(const std::vector<NoteId>& ids, const PointInTime& before);
    void add_notes(const DocumentRun& run);

    const DocumentRequest& m_request;
    DocumentModule& m_module;
    DocumentTrials& m_trials;
    DocumentsResult& m_result;
};

} // namespace qrtln
