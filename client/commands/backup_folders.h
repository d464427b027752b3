// Folders below the data directory that hold nothing at a backup: removed on purpose, or away on a
// disk that is not mounted, and then their databases must not be taken for deleted ones.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/store/store.h"

#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// The folders of --removed.
class RemovedFolders {
  public:
    // Relative ones are below the data directory. Throws ClientError(failed) for one that lies
    // elsewhere, or is there and not empty.
    RemovedFolders(const std::vector<std::string>& given, const NotesIni& ini);

    // Whether a full path lies in one of them.
    bool covers(const std::string& path) const;
    // Whether the attachment store is among them.
    bool attachments() const { return m_attachments; }

  private:
    void add(const std::string& given, const NotesIni& ini);

    std::vector<std::string> m_paths; // full
    bool m_attachments = false;
};

// The folders that have databases in the newest base of the store and hold nothing now, each with
// the reason. `there` are the databases of the server; those that were removed are not looked at.
std::vector<std::pair<std::string, std::string>>
find_missing_folders(Store& store, const NotesIni& ini, const std::vector<std::string>& there,
                     const RemovedFolders& removed);

} // namespace qrtln
