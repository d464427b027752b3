// A folder by a path that the module reads as it is meant, whatever its own path has in it.
#pragma once

#include "client/module/temporary_directory.h"

#include <optional>
#include <string>

namespace qrtln {

// The module looks for its options anywhere in INFO, and takes each path that begins with the data
// directory's text for one in it. Where a folder's path would be misread the module gets another
// one: a symbolic link in a private folder. Nothing but the module goes through that link.
class NeutralPath {
  public:
    // `folder` is absolute and need not exist yet; empty for none, which no path is below. Removes
    // what killed runs of this user left in the places for private links. Throws
    // ClientError(failed) when a link is needed and none can be made.
    NeutralPath(const std::string& folder, const std::string& data_directory);

    // The folder, as the module hears of it.
    const std::string& path() const { return m_path; }
    // A full path as the module hears of it, another one only for what lies in the folder.
    std::string for_module(const std::string& path) const;
    // A text of the module with the folder's own path.
    std::string in_text(std::string text) const;

  private:
    std::string m_folder;
    std::optional<TemporaryDirectory> m_private; // has the link
    std::string m_path;
};

} // namespace qrtln
