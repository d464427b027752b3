// The folders that a restore has to make on its way to what it writes: whom they belong to until
// then, and the metadata of their originals at the end.
#pragma once

#include "client/base/safe_folder.h"
#include "client/sets/manifest.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

class CreatedFolders {
  public:
    // For SafeFolder(root).open_folder(): a new folder gets mode and, from root, owner of the one
    // above it. The callback must not outlive this object.
    FolderCreated callback(const std::string& root);

    // Gives the folders what `original` says of them, the innermost first: what happens in a folder
    // changes its time. `original` gets root and relative name, and returns nullptr for one that
    // keeps what it has.
    void give_metadata_back(const std::function<const ManifestItem*(
                                const std::string& root, const std::string& relative)>& original);

    // What went wrong, each with the path of its folder.
    const std::vector<std::string>& warnings() const { return m_warnings; }

  private:
    std::vector<std::pair<std::string, std::string>> m_created; // root and relative name
    std::vector<std::string> m_warnings;
};

// An empty disk is root's: the server's library would run as root on it, for a server that can
// write nothing there. Gives a data directory that is empty and root's owner and mode of the lost
// one, if `folders`, by path, has it. Returns what to tell of it, empty when there was nothing to
// do.
std::string give_empty_data_directory(const std::string& directory,
                                      const std::map<std::string, ManifestItem>& folders);

} // namespace qrtln
