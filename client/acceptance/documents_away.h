// Documents that are deleted from a live database for a moment.
#pragma once

#include "client/acceptance/notes_runtime.h"

#include <set>

namespace qrtln::acceptance {

// Deletes documents and brings them back from a copy of the database; those that are away when it
// goes are brought back then. What stays away is told as left. Both databases must outlive it.
class DocumentsAway {
  public:
    DocumentsAway(Teller& teller, const OpenDatabase& live, const OpenDatabase& source,
                  const std::string& shown);
    ~DocumentsAway();
    DocumentsAway(const DocumentsAway&) = delete;
    DocumentsAway& operator=(const DocumentsAway&) = delete;

    // Each stops the group when it fails.
    void take(NOTEID id);
    void bring_back(NOTEID id);

  private:
    STATUS copy(NOTEID id);
    void check(const char* call, STATUS status);
    void tell_what_is_away() noexcept;

    Teller& m_teller;
    const OpenDatabase& m_live;
    const OpenDatabase& m_source;
    const std::string m_shown;
    DBID m_live_id{};
    DBID m_source_id{};
    std::set<NOTEID> m_away;
};

} // namespace qrtln::acceptance
