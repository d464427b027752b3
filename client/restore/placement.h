// Where each item of a restore goes: by its kind, its place on the server, and what was asked for.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/restore/plan.h"
#include "client/restore/planned_item.h"
#include "client/restore/selection.h"

#include <string>

namespace qrtln {

// Throws ClientError(failed) for a folder to restore or recover to that the module would take for
// the data directory or misread, and for one that cannot be made. `to` is absolute; empty: the
// original place.
void check_relocation(const std::string& to, const std::string& data_directory);

class Placement {
  public:
    // Both must outlive this. `to` is the absolute folder of a relocation; empty: none.
    Placement(const NotesIni& ini, const RestoreRequest& request, std::string to)
        : m_ini(ini), m_request(request), m_to(std::move(to)), m_log_directory(log_directory(ini)) {
    }

    // Sets the action, with what is announced, the root and the target, or the reason against it.
    // `selected` says how the item was chosen. Looks at folders; the target is not looked at.
    void place(PlannedItem& planned, const SelectedItem& selected) const;
    // What the client writes by itself. Names count all the same: a database, or a log of the
    // server, is never written as something else, whatever a manifest says.
    bool is_written_by_client(const ManifestItem& item) const;
    const std::string& log_folder() const { return m_log_directory; }

  private:
    void relocate(PlannedItem& planned) const;
    void place_original(PlannedItem& planned, bool named) const;
    void place_database(PlannedItem& planned, bool named) const;
    void place_log(PlannedItem& planned, const SelectedItem& selected) const;
    void place_file(PlannedItem& planned, bool named) const;
    void place_attachment(PlannedItem& planned) const;
    bool is_named_by_path(const std::string& path) const;

    const NotesIni& m_ini;
    const RestoreRequest& m_request;
    std::string m_to;
    std::string m_log_directory;
};

} // namespace qrtln
