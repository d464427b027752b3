// A folder that keeps what a command must write while its store can only be read.
#pragma once

#include "client/store/folder_lock.h"

#include <string>
#include <string_view>

namespace qrtln {

// In a store and in such a folder: what the name of a file ends in until it is whole.
inline constexpr std::string_view temporary_suffix = ".tmp";

// Whether a file of the run-time data was being made when its run was killed: a sibling that was to
// replace a document, or the module's working copy of its index, which ends in the number of its
// process, or the copy of it that was to replace the index.
bool is_unfinished(std::string_view name);

struct StateRequest {
    std::string directory;      // --state
    std::string store;          // may not hold it
    std::string data_directory; // nor may that
    bool writes = true;         // else it is only looked at, and need not exist
};

class StateFolder {
  public:
    // Makes the folder, of mode 0700, and locks it, if the request writes. One that is there must
    // be empty or have been made so. Throws ClientError: locked, failed.
    explicit StateFolder(const StateRequest& request);

    // Absolute.
    std::string runtime_directory() const { return m_directory + "/runtime"; }
    std::string file(const std::string& name) const { return m_directory + "/" + name; }

  private:
    std::string m_directory; // without symbolic links
    FolderLock m_lock;
};

} // namespace qrtln
